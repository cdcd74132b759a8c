#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "config/conf.h"
#include "core/utils.h"
#include "tests/core/sandbox.h"

namespace {

using pairs = std::vector<std::pair<std::wstring, std::wstring>>;

struct Conf : testing::Test {
    temp_dir dir;

    pairs parse(const std::string &text, int include_comments = 0) {
        write_file(dir / "conf", text);
        key_value_pair_spec *spec = nullptr;
        EXPECT_EQ(conf_parse_key_value_pair((dir / "conf").c_str(), &spec, include_comments), 0);
        pairs result;
        for (int i = 0; i < spec->count; ++i) {
            const key_value_pair &pair = *spec->kvp[i];
            result.push_back({std::wstring(pair.key, static_cast<size_t>(pair.key_len)),
                              std::wstring(pair.value, static_cast<size_t>(pair.value_len))});
            EXPECT_EQ(pair.key[pair.key_len], L'\0');
            EXPECT_EQ(pair.value[pair.value_len], L'\0');
        }
        conf_teardown_key_value_pair(spec);
        return result;
    }
    void expect_failure(const std::string &path, const std::string &reason) {
        const child_result child = run_in_child([&] {
            key_value_pair_spec *spec = nullptr;
            const int result = conf_parse_key_value_pair(path.c_str(), &spec, 0);
            const bool empty = spec && spec->count == 0;
            conf_teardown_key_value_pair(spec);
            fflush(stdout);
            _exit(result == 1 && empty ? 0 : 1);
        });
        EXPECT_EQ(child.status, 0);
        EXPECT_EQ(child.out,
                  "Error: Failed to open conf file " + path + " with error " + reason + "\n");
    }
};

TEST_F(Conf, TheOrderOfTheFileIsKept) {
    EXPECT_EQ(parse("b=2\na=1\nb=3\n"), (pairs{{L"b", L"2"}, {L"a", L"1"}, {L"b", L"3"}}));
}

TEST_F(Conf, OnlyTheFirstSignCuts) {
    EXPECT_EQ(parse("a=b=c\n=x\n=\n"), (pairs{{L"a", L"b=c"}, {L"", L"x"}, {L"", L""}}));
}

TEST_F(Conf, NothingIsTrimmed) {
    EXPECT_EQ(parse("rec_port = 8082\n \tkey=v \n"),
              (pairs{{L"rec_port ", L" 8082"}, {L" \tkey", L"v "}}));
}

TEST_F(Conf, ALineWithoutSignIsKeyAndValue) {
    EXPECT_EQ(parse("alone\n"), (pairs{{L"alone", L"alone"}}));
}

TEST_F(Conf, CommentsAndBlankLinesAreDropped) {
    EXPECT_EQ(parse("#rec_port=1\n\n \t\r\n\x01\x1f\na=1#2\n #rec_port=1\n"),
              (pairs{{L"a", L"1#2"}, {L" #rec_port", L"1"}}));
}

TEST_F(Conf, CommentsAndBlankLinesAreKeptOnRequest) {
    EXPECT_EQ(parse("# x=1\n\na=1\n#c\n  \n", 1),
              (pairs{{L"# x", L"1"}, {L"", L""}, {L"a", L"1"}, {L"#c", L"#c"}, {L"  ", L"  "}}));
}

TEST_F(Conf, WithoutAFinalLineFeedTheLastCharacterIsLost) {
    EXPECT_EQ(parse("a=1\nthrottle=100"), (pairs{{L"a", L"1"}, {L"throttle", L"10"}}));
    EXPECT_EQ(parse("alone"), (pairs{{L"alon", L"alon"}}));
    EXPECT_EQ(parse("k="), (pairs{{L"k", L""}}));
    EXPECT_EQ(parse("="), (pairs{{L"", L""}}));
    EXPECT_EQ(parse("k"), (pairs{{L"", L""}}));
}

TEST_F(Conf, CarriageReturnsStay) {
    EXPECT_EQ(parse("a=1\r\nb\r\n"), (pairs{{L"a", L"1\r"}, {L"b\r", L"b\r"}}));
}

TEST_F(Conf, NulBytesAreOrdinaryCharacters) {
    EXPECT_EQ(parse(std::string("a\0b=c\0d\n\0\n", 10)),
              (pairs{{std::wstring(L"a\0b", 3), std::wstring(L"c\0d", 3)}}));
}

TEST_F(Conf, BytesAboveAsciiAreTextAndSurvive) {
    const pairs found = parse("k=\xff\xc3\xa9\n\xe9\n");
    ASSERT_EQ(found.size(), 2u);
    char *value = wstrtostr(found[0].second.c_str());
    EXPECT_STREQ(value, "\xff\xc3\xa9");
    free(value);
}

TEST_F(Conf, LongLinesAndManyLines) {
    const std::string value(300'000, 'v');
    const pairs found = parse("k=" + value + "\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].second, std::wstring(300'000, L'v'));
    std::string many;
    for (int i = 0; i < 1000; ++i) many += "k" + std::to_string(i) + "=v\n";
    EXPECT_EQ(parse(many).size(), 1000u);
    EXPECT_EQ(parse(many)[999].first, L"k999");
}

TEST_F(Conf, AnEmptyFileGivesAnEmptyList) {
    EXPECT_EQ(parse(""), pairs{});
    conf_teardown_key_value_pair(nullptr);
}

TEST_F(Conf, WhatIsNoFileIsReported) {
    expect_failure(dir / "none", "2(No such file or directory)");
    expect_failure(dir.path(), "21(Is a directory)");
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    expect_failure(dir / "fifo", "22(Invalid argument)");
}

TEST_F(Conf, Widen) {
    wchar_t *wide = widen("text");
    EXPECT_STREQ(wide, L"text");
    free(wide);
    wide = widen("");
    EXPECT_STREQ(wide, L"");
    free(wide);
    EXPECT_EQ(widen(nullptr), nullptr);
}

}  // namespace
