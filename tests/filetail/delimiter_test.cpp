// The seam to the pattern matcher.

#include "filetail/delimiter.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct answer {
    int found;
    delimiter_hit hit;
};

answer find(const std::string &pattern, const std::string &text, delimiter_search how = {}) {
    const delimiter_ptr delim = delimiter_compile(pattern, nullptr);
    EXPECT_TRUE(delim) << pattern;
    answer a{0, {0, 0}};
    if (delim) a.found = delimiter_find(delim.get(), text.data(), text.size(), how, &a.hit);
    return a;
}

TEST(Delimiter, KnowsPlainTextWhenItSeesIt) {
    for (const char *plain : {"\n", " ", "\\t", "\\n", "\\r\\n", "abc", "--end--", "\\.", "a\\|b",
                              "}", "]", "<ev>", "#", "\\\\", "\xe4\xff", "\\a\\e\\f"}) {
        EXPECT_TRUE(delimiter_is_literal(delimiter_compile(plain, nullptr).get())) << plain;
    }
    for (const char *pattern : {"", "^", "$", "a.", "[a]", "a|b", "(a)", "a?", "a*", "a+", "a{2}",
                                "\\d", "\\x41", "\\Q.\\E", "\\1", "\\cA", "\\b"}) {
        const delimiter_ptr delim = delimiter_compile(pattern, nullptr);
        EXPECT_TRUE(!delim || !delimiter_is_literal(delim.get())) << pattern;
    }
}

// Each plain text gives what the matcher would give for it.
TEST(Delimiter, PlainTextMeansWhatThePatternMeans) {
    const struct {
        const char *pattern;
        std::string text;
    } rows[] = {{"\\t", "a\tb"},
                {"\\r\\n", "a\r\nb"},
                {"\\.", "ab.c"},
                {"a\\|b", "a a|b"},
                {"\\\\", "a\\b"},
                {"\\e",
                 "a\x1b"
                 "b"},
                {"}", "a}b"},
                {"]", "a]b"},
                {"\\/x", "a/x"},
                {"\\a", "b\a"},
                {"\\f", "b\f"},
                {"\xe4", "a\xe4"}};
    for (const auto &r : rows) {
        // A group around it keeps the same pattern from being taken for plain text.
        const answer plain = find(r.pattern, r.text);
        const answer matched = find("(?:" + std::string(r.pattern) + ")", r.text);
        ASSERT_EQ(plain.found, kDelimiterFound) << r.pattern;
        ASSERT_EQ(matched.found, kDelimiterFound) << r.pattern;
        EXPECT_EQ(plain.hit.begin, matched.hit.begin) << r.pattern;
        EXPECT_EQ(plain.hit.end, matched.hit.end) << r.pattern;
    }
}

TEST(Delimiter, SaysWhyAPatternDoesNotCompile) {
    std::string reason;
    EXPECT_FALSE(delimiter_compile("(", &reason));
    EXPECT_NE(reason.find("missing )"), std::string::npos) << reason;
    EXPECT_FALSE(delimiter_compile("[a", nullptr));
    EXPECT_FALSE(delimiter_compile("*", nullptr));
    EXPECT_FALSE(delimiter_compile("abc\\", nullptr));
}

TEST(Delimiter, FindsFromAPlaceOn) {
    EXPECT_EQ(find("ab", "abxab", {1, false, false}).hit.begin, 3u);
    EXPECT_EQ(find("a[b]", "abxab", {1, false, false}).hit.begin, 3u);
    EXPECT_EQ(find("ab", "ab", {2, false, false}).found, kDelimiterNone);
    EXPECT_EQ(find("ab", "ab", {9, false, false}).found, kDelimiterNone);
    EXPECT_EQ(find("a[b]", "ab", {9, false, false}).found, kDelimiterNone);
}

TEST(Delimiter, TellsWhereToGoOn) {
    EXPECT_EQ(find("\n", "abc").hit.begin, 3u);
    EXPECT_EQ(find("end", "abcde").hit.begin, 3u);
    EXPECT_EQ(find("end", "ab").hit.begin, 0u);
    EXPECT_EQ(find("end", "abcde", {4, false, false}).hit.begin, 4u);
    EXPECT_EQ(find("e[n]d", "abcdx", {0, true, false}).hit.begin, 5u);
    const answer cut_off = find("e[n]d", "abxen", {0, true, false});
    EXPECT_EQ(cut_off.found, kDelimiterUndecided);
    EXPECT_EQ(cut_off.hit.begin, 3u);
    EXPECT_EQ(find("e[n]d", "abxen", {1, false, false}).hit.begin, 1u)
        << "at the end of the text nothing is ruled out yet";
}

TEST(Delimiter, AnEmptyMatchCanBePassedOver) {
    const answer at_once = find("x*", "abc");
    EXPECT_EQ(at_once.found, kDelimiterFound);
    EXPECT_EQ(at_once.hit.end, 0u);
    const answer next = find("x*", "abc", {0, false, true});
    EXPECT_EQ(next.found, kDelimiterFound);
    EXPECT_EQ(next.hit.begin, 1u);
}

TEST(Delimiter, HardPatternsEndInAnErrorAndNotInACrash) {
    const answer steps = find("(a+a+)+(a+a+)+(a+a+)+[=%]", std::string(60, 'a') + "!");
    EXPECT_LT(steps.found, 0);
    // Depth: each character costs a level of the group.
    const answer depth = find("^(?:(a|b|ab)(c|d)?)+[=%]", std::string(8 * 1024 * 1024, 'a'));
    EXPECT_LE(depth.found, 0);
}

TEST(Delimiter, ManyGroupsStillMatch) {
    std::string pattern;
    for (int i = 0; i < 40; ++i) pattern += "(a)";
    const answer a = find(pattern, std::string(50, 'a'));
    EXPECT_EQ(a.found, kDelimiterFound) << "more groups than the match vector has room for";
    EXPECT_EQ(a.hit.end, 40u);
}

}  // namespace
