// The cutting rule as rows of literals, and against a model that cuts the whole text at once.

#include "filetail/cutter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/siemcollector_log.h"

namespace {

using strings = std::vector<std::string>;

strings cut(const std::string &pattern, int at_end, const std::string &text, bool more = false,
            int most = kBatchEvents) {
    std::string reason;
    const delimiter_ptr delim = delimiter_compile(pattern, &reason);
    EXPECT_TRUE(delim) << pattern << ": " << reason;
    if (!delim) return {};
    std::vector<event_span> spans(static_cast<size_t>(most));
    cut_progress progress{};
    const cut_result result = cut_events(
        {delim.get(), at_end, text.data(), text.size(), more, most}, &progress, spans.data());
    EXPECT_EQ(result.error, 0);
    strings events;
    size_t expected = 0;
    for (int i = 0; i < result.count; ++i) {
        const event_span &span = spans[static_cast<size_t>(i)];
        EXPECT_EQ(span.begin, expected) << "events touch each other";
        EXPECT_GT(span.end, span.begin);
        expected = span.end;
        events.push_back(text.substr(span.begin, span.end - span.begin));
    }
    return events;
}

TEST(Cutter, TranslatesDelimiterWords) {
    EXPECT_STREQ(translate_delim("<newline>"), "\n");
    EXPECT_STREQ(translate_delim("[newline]"), "\n");
    EXPECT_STREQ(translate_delim("<tab>"), "\\t");
    EXPECT_STREQ(translate_delim("[tab]"), "\\t");
    EXPECT_STREQ(translate_delim("<space>"), " ");
    EXPECT_STREQ(translate_delim("[space]"), " ");
    for (const char *other : {"", "<Newline>", "<newline> ", "newline", "<newline", "\\d+"}) {
        EXPECT_EQ(translate_delim(other), other);
    }
}

struct row {
    const char *pattern;
    int at_end;
    std::string text;
    strings events;
};

const row kRows[] = {
    // The delimiter ends an event and belongs to it; the rest stays.
    {"\n", 1, "a\nb\nc", {"a\n", "b\n"}},
    {"\n", 1, "", {}},
    {"\n", 1, "abc", {}},
    {"\n", 1, "\n", {"\n"}},
    {"\n", 1, "\n\na\n", {"\n", "\n", "a\n"}},
    {"\\t", 1, "a\tb\tc", {"a\t", "b\t"}},
    {" ", 1, "a b c", {"a ", "b "}},
    {"--", 1, "a--b---c--", {"a--", "b--", "-c--"}},
    {"\\d+;", 1, "a1;b22;c3", {"a1;", "b22;"}},
    {"a|b", 1, "1a2b3", {"1a", "2b"}},
    // The delimiter starts an event; the last one is not over yet.
    {"#", 0, "#a#b#c", {"#a", "#b"}},
    {"#", 0, "#a", {}},
    {"#", 0, "##", {"#"}},
    {"\\d\\d:", 0, "10:x11:y12:z", {"10:x", "11:y"}},
    // What stands in front of the first delimiter belongs to the first event.
    {"#", 0, "x#a#b", {"x#a"}},
    {"<ev>", 0, "junk<ev>1<ev>2<ev>3", {"junk<ev>1", "<ev>2"}},
    // Patterns that match empty text make progress and cut where they match.
    {"(?=\\d\\d:)", 0, "10:x11:y12:z", {"10:x", "11:y"}},
    {"(?=#)", 1, "a#b#c", {"a", "#b"}},
    {"(?m)^", 0, "a\nb\nc\n", {"a\n", "b\n"}},
    {"(?m)^", 1, "a\nb\nc\n", {"a\n", "b\n"}},
    {"(?m)$", 1, "a\nb\n", {"a", "\nb"}},
    {"x*", 1, "axxb", {"axx"}},
    {"x*", 0, "axxbc", {"a", "xxb"}},
    {"x*", 1, "abc", {"a", "b"}},
    {"", 1, "abc", {"a", "b"}},
    {"", 0, "abc", {"a", "b"}},
    // "^" means the start of a line: where a buffer begins is not a place in the file.
    {"^", 0, "a\nb\nc\n", {"a\n", "b\n"}},
    {"^\\d+ ", 0, "1 a\nx\n2 b\n3 c\n", {"1 a\nx\n", "2 b\n"}},
    {"^END\\n", 1, "a\nEND\nb\nEND\nc", {"a\nEND\n", "b\nEND\n"}},
    // A match may be reported in front of the place that it was searched from.
    {"(?<=a)b\\K", 1, "abab", {"ab"}},
    {"(?=ab\\K)", 1, "xabyab", {"x", "aby"}},
    // Bytes are bytes.
    {"\n", 1, std::string("a\0b\nc\n", 6), {std::string("a\0b\n", 4), "c\n"}},
    {"\xff", 1, "a\xff\xfe\xff", {"a\xff", "\xfe\xff"}},
    {"[\xe4]", 1, "a\xe4z\xe4", {"a\xe4", "z\xe4"}},
};

TEST(Cutter, CutsAsWritten) {
    for (const row &r : kRows) {
        EXPECT_EQ(cut(r.pattern, r.at_end, r.text), r.events)
            << '/' << r.pattern << "/ at the " << (r.at_end ? "end" : "start") << " of " << r.text;
    }
}

TEST(Cutter, ABatchHoldsAtMostItsEvents) {
    std::string text;
    for (int i = 0; i < 700; ++i) text += std::to_string(i) + "\n";
    EXPECT_EQ(cut("\n", 1, text).size(), 500u);
    EXPECT_EQ(cut("\n", 1, text, false, 3), (strings{"0\n", "1\n", "2\n"}));
    std::string starts;
    for (int i = 0; i < 700; ++i) starts += "#" + std::to_string(i);
    EXPECT_EQ(cut("#", 0, starts).size(), 500u);
}

TEST(Cutter, DecidesNothingAtTheEdgeOfAFullBuffer) {
    // The next byte may belong to the delimiter, or rule it out.
    EXPECT_EQ(cut("\\n+", 1, "a\n\nb\n", true), (strings{"a\n\n"}));
    EXPECT_EQ(cut("\\n+", 1, "a\n\nb\n", false), (strings{"a\n\n", "b\n"}));
    EXPECT_EQ(cut("\\n(?! )", 1, "a\nb\n", true), (strings{"a\n"}));
    EXPECT_EQ(cut("\\n(?! )", 1, "a\nb\n", false), (strings{"a\n", "b\n"}));
    EXPECT_EQ(cut("\\d{4}-", 0, "2026-a2026-b20", true), (strings{"2026-a"}));
    EXPECT_EQ(cut("\n", 1, "a\nb\n", true), (strings{"a\n", "b\n"}));
}

TEST(Cutter, GoesOnSearchingWhereItStopped) {
    const struct {
        const char *pattern;
        int at_end;
        std::string text;
        size_t first;  // bytes given at first
        size_t end;    // of the first event
    } rows[] = {
        {"\n", 1, "aaaaaaaa\nb", 5, 9},         {"-end-", 1, "aaaa-end-b", 7, 9},
        {"#", 0, "#aaaaaaa#b", 5, 8},           {"-end-", 0, "x-end-aa-end-", 10, 8},
        {"\\d+;", 1, "aaaa123;b", 6, 8},        {"(?=\\d\\d:)", 0, "10:aaa11:b", 7, 6},
        {"(?=\\d\\d:)", 0, "10:aaa11:b", 2, 6},
    };
    for (const auto &r : rows) {
        const delimiter_ptr delim = delimiter_compile(r.pattern, nullptr);
        event_span spans[kBatchEvents];
        cut_progress progress{};
        cut_request request{delim.get(), r.at_end, r.text.data(), r.first, true, kBatchEvents};
        ASSERT_EQ(cut_events(request, &progress, spans).count, 0) << r.pattern;
        request.length = r.text.size();
        ASSERT_GE(cut_events(request, &progress, spans).count, 1) << r.pattern;
        EXPECT_EQ(spans[0].end, r.end) << r.pattern;
    }
}

TEST(Cutter, ReportsAMatcherErrorBehindTheEventsCut) {
    // Every way of splitting the a's is tried: more steps than the matcher may take.
    const std::string text = "a;\n" + std::string(40, 'a') + "!";
    const delimiter_ptr delim = delimiter_compile("\\n|(a+a+)+(a+a+)+(a+a+)+=", nullptr);
    ASSERT_TRUE(delim);
    event_span spans[kBatchEvents];
    cut_progress progress{};
    const cut_result result = cut_events(
        {delim.get(), 1, text.data(), text.size(), false, kBatchEvents}, &progress, spans);
    EXPECT_EQ(result.count, 1);
    EXPECT_LT(result.error, 0);
}

// A random text cut in one go, and the same in pieces of random length that forget nothing but
// what was cut: the events are the same wherever a buffer happens to end.
TEST(Cutter, EventsDoNotDependOnWhereBuffersEnd) {
    std::mt19937 random(20261121);
    const char *patterns[] = {"\n", "ab", "a+", "a(?!b)", "(?=ab)", "\\n(?=a)", "b?a", "(?m)a$"};
    for (int round = 0; round < 4000; ++round) {
        const char *pattern = patterns[random() % std::size(patterns)];
        const int at_end = static_cast<int>(random() % 2);
        std::string text(random() % 60, '\0');
        for (char &c : text) c = "ab\nc"[random() % 4];
        const delimiter_ptr delim = delimiter_compile(pattern, nullptr);
        strings pieces;
        event_span spans[kBatchEvents];
        size_t at = 0;
        for (size_t window = 1 + random() % 8; at < text.size();) {
            cut_progress progress{};
            cut_result result{0, 0};
            size_t length = 0;
            for (size_t wanted = window;; wanted *= 2) {
                length = std::min(wanted, text.size() - at);
                const bool more = length == wanted;
                result = cut_events({delim.get(), at_end, text.data() + at, length, more, 3},
                                    &progress, spans);
                if (result.count > 0 || !more) break;
            }
            if (result.count == 0) break;
            for (int i = 0; i < result.count; ++i) {
                pieces.push_back(text.substr(at + spans[i].begin, spans[i].end - spans[i].begin));
            }
            at += spans[result.count - 1].end;
        }
        ASSERT_EQ(pieces, cut(pattern, at_end, text))
            << "round " << round << " /" << pattern << "/ " << at_end << " " << text;
    }
}

TEST(Cutter, ReplacesLineEndsByBlanks) {
    char text[] = "\na\r\nb\r\n\r";
    replace_newlines(text);
    EXPECT_STREQ(text, " a  b   ");
    char empty[] = "";
    replace_newlines(empty);
    EXPECT_STREQ(empty, "");
}

TEST(Cutter, CleansTextOfAnyLength) {
    for (size_t length = 0; length < 70; ++length) {
        std::string text(length, 'x'), expected(length, 'x');
        for (size_t i = 0; i < length; ++i) {
            const char c = "a\nb\rc\0\t "[i % 8];
            text[i] = c;
            expected[i] = c == '\n' || c == '\r' || c == '\0' ? ' ' : c;
        }
        clean_text(text.data(), text.size());
        EXPECT_EQ(text, expected);
    }
    // One byte of every value at every place of long texts that hold nothing else to clean.
    for (size_t length : {63u, 64u, 65u, 127u, 128u, 150u}) {
        for (size_t at = 0; at < length; ++at) {
            for (int byte = 0; byte < 256; ++byte) {
                const char c = static_cast<char>(byte);
                std::string text(length + 2, '\n'), expected(length + 2, '\n');
                std::fill_n(text.begin() + 1, length, 'x');
                std::fill_n(expected.begin() + 1, length, 'x');
                text[1 + at] = c;
                expected[1 + at] = c == '\n' || c == '\r' || c == '\0' ? ' ' : c;
                clean_text(text.data() + 1, length);
                ASSERT_EQ(text, expected) << length << " " << at << " " << byte;
            }
        }
    }
    EXPECT_EQ(leading_nuls("\0\0a\0", 4), 2u);
    EXPECT_EQ(leading_nuls("\0\0", 2), 2u);
    EXPECT_EQ(leading_nuls("a", 1), 0u);
}

// The stream form: copies of the events of one batch.
class XRead : public ::testing::Test {
  protected:
    void SetUp() override {
        logger_init(0, nullptr, 0);
        stream_ = tmpfile();
        ASSERT_NE(stream_, nullptr);
    }
    void TearDown() override {
        drop();
        fclose(stream_);
    }
    void drop() {
        for (char *&event : events_) {
            free(event);
            event = nullptr;
        }
    }
    void fill(const std::string &text) {
        fwrite(text.data(), 1, text.size(), stream_);
        rewind(stream_);
    }
    int read(const char *pattern, int at_end) {
        drop();
        return xread(events_, stream_, pattern, at_end);
    }
    FILE *stream_ = nullptr;
    char *events_[kBatchEvents] = {};
};

TEST_F(XRead, CutsABatchAndLeavesTheRest) {
    fill("a\nb\nc");
    ASSERT_EQ(read("\n", 1), 2);
    EXPECT_STREQ(events_[0], "a\n");
    EXPECT_STREQ(events_[1], "b\n");
    fseek(stream_, 4, SEEK_SET);
    EXPECT_EQ(read("\n", 1), 0) << "the rest has no delimiter yet";
    fseek(stream_, 5, SEEK_SET);
    EXPECT_EQ(read("\n", 1), -1) << "nothing left";
}

TEST_F(XRead, RefusesAPatternThatDoesNotCompile) {
    fill("a\n");
    EXPECT_EQ(read("(", 1), -1);
}

TEST_F(XRead, ReportsAReadError) {
    FILE *directory = fopen("/tmp", "r");
    ASSERT_NE(directory, nullptr);
    EXPECT_EQ(xread(events_, directory, "\n", 1), -1);
    fclose(directory);
}

TEST_F(XRead, DoublesItsBufferUntilADelimiterFits) {
    for (const size_t length : {1022u, 1023u, 1024u, 1025u, 2047u, 2048u, 5000u, 70000u}) {
        rewind(stream_);
        fill(std::string(length, 'x') + "\ny\n");
        ASSERT_GE(read("\n", 1), 1) << length;
        EXPECT_EQ(strlen(events_[0]), length + 1);
    }
}

TEST_F(XRead, EndsABatchAt500Events) {
    std::string text;
    for (int i = 0; i < 600; ++i) text += "\n";
    fill(text);
    EXPECT_EQ(read("\n", 1), 500);
}

}  // namespace
