#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <string>

#include "core/utils.h"

namespace {

std::string narrow(const std::wstring &wide) {
    char *text = wstrtostr(wide.c_str());
    std::string copy = text ? text : "(null)";
    free(text);
    return copy;
}

std::wstring wide(const std::string &text, int length) {
    wchar_t *copy = strtowstr(text.c_str(), length);
    std::wstring result = copy ? copy : L"(null)";
    free(copy);
    return result;
}

std::string there_and_back(const std::string &bytes) {
    wchar_t *copy = bytes_to_wide(bytes.data(), bytes.size(), nullptr);
    char *text = wstrtostr(copy);
    std::string result = text;
    free(copy);
    free(text);
    return result;
}

// Each case runs in the C locale and in a UTF-8 one, and leaves the locale as it was.
struct Text : testing::TestWithParam<const char *> {
    void SetUp() override {
        before_ = setlocale(LC_CTYPE, nullptr);
        if (!setlocale(LC_CTYPE, GetParam())) GTEST_SKIP() << "no locale " << GetParam();
    }
    void TearDown() override { setlocale(LC_CTYPE, before_.c_str()); }
    bool utf8() const { return std::string(GetParam()) != "C"; }

  private:
    std::string before_;
};

TEST_P(Text, PlainTextGoesBothWays) {
    EXPECT_EQ(narrow(L"plain /text=1"), "plain /text=1");
    EXPECT_EQ(narrow(L""), "");
    EXPECT_EQ(wide("plain", 5), L"plain");
    EXPECT_EQ(wstrtostr(nullptr), nullptr);
    EXPECT_EQ(strtowstr(nullptr, 3), nullptr);
}

TEST_P(Text, TheWideCopyIsCutAtItsLengthAndTerminated) {
    EXPECT_EQ(wide("abcdef", 3), L"abc");
    EXPECT_EQ(wide("abc", 10), L"abc");
    EXPECT_EQ(wide("abc", 0), L"");
    EXPECT_EQ(wide("abc", -1), L"");
    char unterminated[] = {'a', 'b', 'c'};
    wchar_t *copy = strtowstr(unterminated, 3);
    EXPECT_STREQ(copy, L"abc");
    free(copy);
}

TEST_P(Text, EveryPairOfBytesSurvivesTheWayThereAndBack) {
    for (int first = 1; first < 256; ++first) {
        for (int second = 1; second < 256; ++second) {
            const std::string bytes = {'<', static_cast<char>(first), static_cast<char>(second),
                                       '>'};
            ASSERT_EQ(there_and_back(bytes), bytes) << first << ' ' << second;
        }
    }
}

TEST_P(Text, ValidAndBrokenUtf8SurvivesToo) {
    for (const char *bytes : {"gr\xc3\xbc\xc3\x9f", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xe2\x82",
                              "\xf0\x9f\x98", "\xed\xa0\x80", "\xc0\x80", "\xf4\x90\x80\x80",
                              "\xf8\x88\x80\x80\x80", "\xfc\x84\x80\x80\x80\x80", "\xff\xfe",
                              // the carriers themselves, as text
                              "\xef\x9c\x80", "\xef\x9f\xbf", "x\xef\x9e\xa9y", "\xef\x9c"}) {
        EXPECT_EQ(there_and_back(bytes), bytes);
    }
}

TEST_P(Text, BytesThatAreNoTextBecomeOneCharacterEach) {
    const std::wstring text = wide("a\xff\xfe", 10);
    ASSERT_EQ(text.size(), 3u);
    EXPECT_EQ(text[0], L'a');
    EXPECT_NE(text[1], text[2]);
}

TEST_P(Text, LengthsCountCharacters) {
    EXPECT_EQ(wide("\xc3\xa9t\xc3\xa9", 5).size(), utf8() ? 3u : 5u);
    EXPECT_EQ(narrow(wide("\xc3\xa9t\xc3\xa9", 2)), utf8() ? "\xc3\xa9t" : "\xc3\xa9");
}

TEST_P(Text, NulBytesAreCarriedByTheFormWithASize) {
    size_t length = 0;
    wchar_t *copy = bytes_to_wide("a\0b", 3, &length);
    ASSERT_EQ(length, 3u);
    EXPECT_EQ(std::wstring(copy, 4), std::wstring(L"a\0b\0", 4));
    free(copy);
}

TEST_P(Text, ACharacterThatTheLocaleLacksIsWrittenAsUtf8) {
    EXPECT_EQ(narrow(L"\u00e9"), "\xc3\xa9");
    EXPECT_EQ(narrow(L"\u20ac"), "\xe2\x82\xac");
    EXPECT_EQ(narrow(L"\U0001F600"), "\xf0\x9f\x98\x80");
    EXPECT_EQ(narrow(std::wstring(1, static_cast<wchar_t>(0x3FFFFFF))), "\xfb\xbf\xbf\xbf\xbf");
    EXPECT_EQ(narrow(std::wstring(1, static_cast<wchar_t>(0x7FFFFFFF))),
              "\xfd\xbf\xbf\xbf\xbf\xbf");
}

INSTANTIATE_TEST_SUITE_P(Locales, Text, testing::Values("C", "C.UTF-8"),
                         [](const auto &info) { return info.index == 0 ? "C" : "Utf8"; });

}  // namespace
