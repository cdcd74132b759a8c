// Batches cut from a file through one window: the same events as from the whole text.

#include "filetail/reader_window.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "core/siemcollector_log.h"

namespace {

using strings = std::vector<std::string>;

class ReaderWindow : public ::testing::Test {
  protected:
    void SetUp() override {
        logger_init(0, nullptr, 0);
        fd = memfd_create("text", MFD_CLOEXEC);
        ASSERT_GE(fd, 0);
        delimiter_is("\n");
    }
    void TearDown() override { close(fd); }
    void delimiter_is(const std::string &pattern, int at_end = 1) {
        delim = delimiter_compile(pattern, nullptr);
        ASSERT_TRUE(delim);
        request.delim = delim.get();
        request.delim_at_end = at_end;
    }
    void append(const std::string &text) {
        ASSERT_EQ(pwrite(fd, text.data(), text.size(), lseek(fd, 0, SEEK_END)),
                  static_cast<ssize_t>(text.size()));
    }
    // Hands out the next batch and moves the position behind it.
    strings batch() {
        strings events;
        count = read_batch(&window, fd, request);
        const char *text = count > 0 ? window_text(&window, request.position) : nullptr;
        for (int i = 0; i < count; ++i) {
            const event_span span = window.events[i];
            events.emplace_back(text + span.begin, span.end - span.begin);
        }
        if (count > 0) request.position += window.events[count - 1].end;
        return events;
    }
    strings all() {
        strings events;
        for (strings more = batch(); !more.empty(); more = batch()) {
            events.insert(events.end(), more.begin(), more.end());
        }
        return events;
    }

    int fd = -1, count = 0;
    delimiter_ptr delim;
    read_window window;
    batch_request request{nullptr, 1, 0, kFirstBufferBytes, false, 4096, kBatchEvents};
};

TEST_F(ReaderWindow, AnEmptyFileHasNothing) {
    EXPECT_TRUE(batch().empty());
    EXPECT_EQ(count, -1);
}

TEST_F(ReaderWindow, ABatchLooksAtTheFirstBytesOnly) {
    for (int i = 0; i < 300; ++i) append("0123456789\n");
    EXPECT_EQ(batch().size(), 1024u / 11);
    EXPECT_EQ(window.read_to, 1024u);
    request.all_at_hand = true;
    EXPECT_EQ(batch().size(), (300u * 11 - 1024 / 11 * 11) / 11) << "all that was read ahead";
}

TEST_F(ReaderWindow, AnUnfinishedEventWaitsForItsDelimiter) {
    append("one\ntw");
    EXPECT_EQ(all(), (strings{"one\n"}));
    EXPECT_EQ(count, 0);
    EXPECT_EQ(bytes_at_hand(window, request.position), 2u);
    append("o\n");
    forget_text(&window);
    EXPECT_EQ(all(), (strings{"two\n"}));
    EXPECT_EQ(count, -1) << "the end of the data";
}

TEST_F(ReaderWindow, TheBufferGrowsOnlyForALongEvent) {
    append(std::string(3000, 'a') + "\n" + std::string(50'000, 'b') + "\n");
    EXPECT_EQ(batch().size(), 1u);
    EXPECT_EQ(window.room, 4096u);
    EXPECT_EQ(batch().size(), 1u);
    EXPECT_GE(window.room, 50'001u);
    EXPECT_LE(window.room, 131'072u);
}

TEST_F(ReaderWindow, AReadErrorForgetsTheText) {
    append("one\ntwo\n");
    EXPECT_EQ(batch().size(), 2u);
    const int file = fd;
    fd = -1;
    request.position = 100;
    EXPECT_TRUE(batch().empty());
    EXPECT_EQ(count, -1);
    EXPECT_EQ(window.length, 0u);
    fd = file;
}

TEST_F(ReaderWindow, AMatcherErrorIsKept) {
    delimiter_is("\\n|(a+a+)+(a+a+)+(a+a+)+=");
    append("one\n" + std::string(60, 'a') + "!");
    EXPECT_EQ(batch(), (strings{"one\n"}));
    EXPECT_LT(window.error, 0);
    EXPECT_TRUE(batch().empty());
    EXPECT_LT(window.error, 0);
}

// The file grows while it is read, the buffers are of any size, batches of any length.
TEST_F(ReaderWindow, GivesTheEventsOfTheWholeText) {
    std::mt19937 random(7);
    const char *patterns[] = {"\n", "ab", "a+b", "\\n(?=a)", "(?=ab)"};
    for (int round = 0; round < 600; ++round) {
        ASSERT_EQ(ftruncate(fd, 0), 0);
        const char *pattern = patterns[random() % std::size(patterns)];
        delimiter_is(pattern, static_cast<int>(random() % 2));
        request.position = 0;
        request.first_bytes = 1 + random() % 32;
        request.read_ahead = 1 + random() % 64;
        request.all_at_hand = random() % 2 != 0;
        request.max_events = 1 + static_cast<int>(random() % 4);
        forget_text(&window);
        std::string text(random() % 400, '\0');
        for (char &c : text) c = "ab\nc"[random() % 4];
        append(text);
        const strings got = all();

        std::vector<event_span> spans(text.size() + 1);
        cut_progress progress{};
        const cut_result whole = cut_events({delim.get(), request.delim_at_end, text.data(),
                                             text.size(), false, static_cast<int>(spans.size())},
                                            &progress, spans.data());
        strings expected;
        for (int i = 0; i < whole.count; ++i) {
            const event_span span = spans[static_cast<size_t>(i)];
            expected.push_back(text.substr(span.begin, span.end - span.begin));
        }
        ASSERT_EQ(got, expected) << "round " << round << " /" << pattern << "/ "
                                 << request.delim_at_end << " " << text;
    }
}

}  // namespace
