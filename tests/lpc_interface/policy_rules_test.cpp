// The rules of a policy, one setting at a time.
#include "lpc_interface/policy_rules.h"

#include <gtest/gtest.h>

#include <climits>
#include <cwchar>
#include <memory>

#include "tests/lpc_interface/kit.h"

namespace {

class Rules : public testing::Test {
  protected:
    void SetUp() override {
        config_entry_map.clear();
        plugin_map.clear();
        fill_config_entry_map();
    }
    void TearDown() override { conf_teardown_key_value_pair(conf); }

    void parse(const std::string &text) {
        conf_teardown_key_value_pair(conf);
        const ConfigFile file(text);
        ASSERT_EQ(conf_parse_key_value_pair(file.path().c_str(), &conf, 1), 0);
    }

    int apply(std::wstring section, std::wstring name, std::wstring value, bool deleted = false) {
        int count = 0;
        log = logged([&] { count = update_config(conf, section, name, value, deleted); });
        return count;
    }

    std::string file(bool deleted = false) const {
        std::string text;
        for (const std::string &line : new_file_lines(conf, deleted)) text += line + "\n";
        return text;
    }

    key_value_pair_spec *conf = nullptr;
    std::string log;
};

constexpr wchar_t kProduct[] = L"LOGRELAY1000";

TEST_F(Rules, TheEightNames) {
    const setting_map expected = {
        {L"Receiver IP", L"rec_ip"},       {L"Receiver Port", L"rec_port"},
        {L"Encryption", L"rec_encrypt"},   {L"OZU Group Log Level", L"debug_level"},
        {L"Log Directory", L"ft_dir"},     {L"Log File", L"ft_filter"},
        {L"Event Delimeter", L"ft_delim"}, {L"Tail Mode", L"ft_start_top"}};
    EXPECT_EQ(config_entry_map, expected);
}

TEST_F(Rules, ANameWithoutARowIsIgnoredAndRemembered) {
    parse("rec_ip=1\n");
    EXPECT_EQ(apply(kProduct, L"Event Delimiter", L"x"), 0);
    EXPECT_EQ(log, "");
    EXPECT_TRUE(config_entry_map.contains(L"Event Delimiter"));
    EXPECT_EQ(config_entry_map[L"Event Delimiter"], L"");
    for (int i = 0; i < 5000; i++) apply(kProduct, L"Name " + std::to_wstring(i), L"x");
    EXPECT_LE(config_entry_map.size(), 1024u);
    EXPECT_EQ(apply(kProduct, L"Receiver IP", L"2"), 1);
    EXPECT_EQ(file(), "rec_ip=2\n\n");
}

TEST_F(Rules, ValuesAreTranslated) {
    const struct {
        const wchar_t *name, *value;
        const char *line;
    } rows[] = {
        {L"Event Delimeter", L"", "ft_delim=[newline]"},
        {L"Event Delimeter", L"x", "ft_delim=x"},
        {L"Tail Mode", L"begin", "ft_start_top=1"},
        {L"Tail Mode", L"beginning", "ft_start_top=1"},
        {L"Tail Mode", L"end", "ft_start_top=0"},
        {L"Tail Mode", L"ending", "ft_start_top=0"},
        {L"Tail Mode", L"Begin", "ft_start_top=Begin"},
        {L"Tail Mode", L"", "ft_start_top="},
        {L"Encryption", L"true", "rec_encrypt=1"},
        {L"Encryption", L"trueish", "rec_encrypt=1"},
        {L"Encryption", L"falsehood", "rec_encrypt=0"},
        {L"Encryption", L"fals", "rec_encrypt=0"},
        {L"Encryption", L"fal", "rec_encrypt=fal"},
        {L"Encryption", L"TRUE", "rec_encrypt=TRUE"},
        {L"Log Directory", L"begin", "ft_dir=begin"},
        {L"Receiver Port", L"true", "rec_port=true"},
    };
    for (const auto &row : rows) {
        parse("rec_encrypt=9\nrec_port=9\ntype=filetail\nft_dir=9\nft_delim=9\nft_start_top=9\n");
        EXPECT_EQ(apply(kProduct, row.name, row.value), 1) << row.line;
        EXPECT_EQ(count_of("\n" + file(), "\n" + std::string(row.line) + "\n"), 1) << file();
    }
}

TEST_F(Rules, MatchingValuesAreLoggedAndLeft) {
    parse("rec_ip=192.0.2.1\n");
    EXPECT_EQ(apply(kProduct, L"Receiver IP", L"192.0.2.1"), 0);
    EXPECT_EQ(log, "(DEBUG) Values match(rec_ip): 192.0.2.1\n");
    EXPECT_EQ(apply(kProduct, L"Receiver IP", L"192.0.2.2"), 1);
    EXPECT_EQ(log, "(WARN) Updated 'rec_ip': 192.0.2.2\n");
    EXPECT_EQ(apply(kProduct, L"Receiver Port", L"8082"), 1);
    EXPECT_EQ(log, "(DEBUG) Added 'rec_port': 8082\n");
    EXPECT_EQ(file(), "rec_ip=192.0.2.2\n\ntype=\nrec_port=8082\n");
}

TEST_F(Rules, AnAddedSectionTakesWhatFollows) {
    parse("rec_ip=1\ntype=filetail\nft_dir=/a\n");
    EXPECT_EQ(apply(L"File.2", L"Log File", L"*.x"), 1);
    EXPECT_EQ(apply(L"File.2", L"Log Directory", L"/b"), 1);
    EXPECT_EQ(apply(L"File.2", L"Log Directory", L"/c"), 1);  // the first value stays
    EXPECT_EQ(log, "(DEBUG) Added 'ft_dir': /c\n");
    EXPECT_EQ(apply(L"File.2", L"Receiver IP", L"2"), 1);
    EXPECT_EQ(file(),
              "rec_ip=1\ntype=filetail\nft_dir=/a\n\ntype=filetail\n"
              "ft_delim_end_of_event=1\nft_dir=/b\nft_filter=*.x\nrec_ip=2\n");
}

TEST_F(Rules, TheNumberOfASectionSkipsSections) {
    const char text[] = "type=filetail\nft_dir=/1\ntype=filetail\nft_dir=/2\nt=x\nft_dir=/3\n";
    const struct {
        const wchar_t *section;
        const char *changed;  // null: no line
    } rows[] = {
        {L"File.1", "/1"},
        {L"File.2", "/2"},
        {L"File.3", "/3"},
        {L"File.4", nullptr},
        {L"File.0", "/1"},
        {L"File", "/1"},
        {L"File.", "/1"},
        {L"File.x", "/1"},
        {L"Other", "/1"},
        {L"File.-1", nullptr},
        {L"Files.2", "/2"},
        {L"File.2.9", "/2"},
        {L"File.99999999999999999999", nullptr},
        {L"File.-99999999999999999999", nullptr},
    };
    for (const auto &row : rows) {
        parse(text);
        plugin_map.clear();
        EXPECT_EQ(apply(row.section, L"Log Directory", L"/new"), 1);
        const std::string result = file();
        EXPECT_EQ(count_of(result, "/new"), 1);
        EXPECT_EQ(plugin_map.empty(), row.changed != nullptr);
        if (row.changed) {
            EXPECT_EQ(count_of(result, row.changed), 0) << result;
        }
    }
}

TEST_F(Rules, TheSearchRunsOnIntoLaterSections) {
    parse("type=filetail\nft_filter=a\ntype=filetail\nft_dir=/2\n");
    EXPECT_EQ(apply(L"File.1", L"Log Directory", L"/new"), 1);
    EXPECT_EQ(file(), "type=filetail\nft_filter=a\ntype=filetail\nft_dir=/new\n\n");
}

TEST_F(Rules, ALineMatchesByTheLengthOfItsOwnKey) {
    parse("#rec_ip=1\n \t=1\n=1\nrec_ip2=1\nREC_IP=1\nrec=1\nrec_ip=1\n");
    EXPECT_EQ(apply(kProduct, L"Receiver IP", L"2"), 1);
    EXPECT_EQ(count_of(file(), "\nrec=2\n"), 1) << file();
    EXPECT_EQ(count_of(file(), "=2"), 1);
}

TEST_F(Rules, DeletedPluginsAreNotSearched) {
    parse("rec_ip=1\ntype=filetail\nft_dir=/a\n");
    EXPECT_EQ(apply(L"File.1", L"Log Directory", L"/a", true), 1);
    EXPECT_EQ(apply(L"General", L"Receiver IP", L"2", true), 1);
    EXPECT_EQ(file(true), "rec_ip=2\ntype=filetail\nft_delim_end_of_event=1\nft_dir=/a\n");
}

TEST_F(Rules, SectionsAreCounted) {
    parse("type=filetail\n#type=x\nt=1\ntypes=1\ntype\n\n type=1\nty=1\n=1\n");
    EXPECT_EQ(count_plugins(conf), 4);
    EXPECT_TRUE(plugin_was_deleted({L"File.1", L"Files", L"file.2"}, 3));
    EXPECT_FALSE(plugin_was_deleted({L"File.1", L"File.2", L"File.3"}, 3));
    EXPECT_FALSE(plugin_was_deleted({L"File.1", L"LOGRELAY1000"}, 3));
    EXPECT_TRUE(plugin_was_deleted({L"LOGRELAY10000"}, 1));
    EXPECT_TRUE(plugin_was_deleted({}, 1));
    EXPECT_FALSE(plugin_was_deleted({}, 0));
}

TEST_F(Rules, LinesWithoutAValueStay) {
    const std::string text = "# note\n\n   \nword\nrec_ip=1\n#a=b\n";
    parse(text);
    EXPECT_EQ(file(), text + "\n");
    EXPECT_EQ(file(true), text);
    parse("=lost\nk=key\nkk=k\n");  // only the second and third are told from such lines
    EXPECT_EQ(file(true), "\nk\nkk=k\n");
}

TEST_F(Rules, SectionsAreWrittenInOrderOfTheirNames) {
    parse("");
    plugin_map[L"File.2"] = {{L"b", L"2"}, {L"a", L"1"}};
    plugin_map[L"File.10"] = {{L"c", L"3"}};
    plugin_map[L"Base"] = {{L"d", L""}};
    EXPECT_EQ(file(),
              "\ntype=\nd=\n\ntype=filetail\nft_delim_end_of_event=1\nc=3\n\n"
              "type=filetail\nft_delim_end_of_event=1\na=1\nb=2\n");
}

TEST_F(Rules, WhatWouldBreakALineIsRefused) {
    parse("rec_ip=1\n");
    for (const std::wstring &bad : {std::wstring(L"2\nrec_port=1"), std::wstring(L"2\r"),
                                    std::wstring(L"2\0"
                                                 L"3",
                                                 3),
                                    std::wstring(L"\n"),
                                    std::wstring(L"2\uf70a"
                                                 L"3"),
                                    std::wstring(L"\uf70d"), std::wstring(L"\uf700")}) {
        EXPECT_EQ(apply(kProduct, L"Receiver IP", bad), 0);
        EXPECT_EQ(count_of(log,
                           "(ERROR) Refused policy setting Receiver IP of section "
                           "LOGRELAY1000: it holds a line break or a NUL\n"),
                  1)
            << log;
        EXPECT_EQ(apply(L"File.1" + bad, L"Log Directory", L"/x"), 0);
        EXPECT_EQ(count_of(log, "(ERROR) Refused policy setting Log Directory of section "), 1);
        EXPECT_EQ(count_of(log, "\n"), 1) << log;
    }
    EXPECT_TRUE(plugin_map.empty());
    EXPECT_EQ(file(), "rec_ip=1\n\n");
}

TEST_F(Rules, CharactersOutsideTheLocaleMatchWhenTheyComeAgain) {
    parse("ft_dir=/a\n");
    const std::wstring wide = L"/\u00e4\u20ac\U0001f600";
    EXPECT_EQ(apply(kProduct, L"Log Directory", wide), 1);
    const std::string written = file();
    EXPECT_EQ(written, "ft_dir=/\u00e4\u20ac\U0001f600\n\n");
    parse(written);
    EXPECT_EQ(apply(kProduct, L"Log Directory", wide), 0);
    // No character at all; nothing sensible can come of it, but nothing bad either.
    apply(kProduct, L"Log Directory", std::wstring(3, static_cast<wchar_t>(-1)));
    apply(kProduct, L"Log Directory", std::wstring(3, static_cast<wchar_t>(0x7fffffff)));
    EXPECT_EQ(count_of(file(), "ft_dir="), 1);
}

TEST_F(Rules, ValuesAreEditedInPlace) {
    wchar_t *value = wcsdup(L"abc");
    int length = 3;
    EXPECT_EQ(compare_values(L"k", L"abc", &value, &length), 0);
    EXPECT_EQ(compare_values(L"k", L"", &value, &length), 1);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(value[0], L'\0');
    EXPECT_EQ(compare_values(L"k", L"", &value, &length), 0);
    EXPECT_EQ(compare_values(L"k", L"longer than before", &value, &length), 1);
    EXPECT_EQ(length, 18);
    EXPECT_STREQ(value, L"longer than before");
    EXPECT_EQ(compare_values(L"k", L"xy", &value, &length), 1);
    EXPECT_STREQ(value, L"xy");
    EXPECT_EQ(length, 2);
    free(value);
}

TEST_F(Rules, LargeValuesPass) {
    parse("ft_filter=a\n");
    const std::wstring large(size_t{1} << 20, L'x');
    EXPECT_EQ(apply(kProduct, L"Log File", large), 1);
    EXPECT_EQ(apply(kProduct, L"Log File", large), 0);
    EXPECT_EQ(file().size(), strlen("ft_filter=\n\n") + large.size());
}

}  // namespace
