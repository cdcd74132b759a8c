// The cutter for logs in which only some lines carry a date.

#include "filetail/big_fix.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

class BigFix : public ::testing::Test {
  protected:
    void SetUp() override {
        stream_ = tmpfile();
        ASSERT_NE(stream_, nullptr);
    }
    void TearDown() override {
        big_fix_teardown_event(&state_);
        EXPECT_EQ(state_, nullptr);
        fclose(stream_);
    }
    void file_holds(const std::string &text) {
        fwrite(text.data(), 1, text.size(), stream_);
        fflush(stream_);
        fseek(stream_, 5, SEEK_SET);
    }
    std::string run(const std::string &text, int length) {
        char *event = strdup(text.c_str());
        EXPECT_EQ(big_fix_process_event(&event, &length, &state_, nullptr, stream_), 1);
        EXPECT_EQ(static_cast<size_t>(length), strlen(event));
        std::string result = event;
        free(event);
        return result;
    }
    std::string run(const std::string &text) { return run(text, static_cast<int>(text.size())); }
    std::string remembered() const { return state_ ? static_cast<char *>(state_) : "(nothing)"; }

    FILE *stream_ = nullptr;
    void *state_ = nullptr;
};

TEST_F(BigFix, RemembersTheDateAndLeavesTheEvent) {
    EXPECT_EQ(run("At Mon Nov 15, 2026 -- start "), "At Mon Nov 15, 2026 -- start ");
    EXPECT_EQ(remembered(), "Nov 15, 2026");
}

TEST_F(BigFix, PutsTheLatestDateInFrontOfOtherEvents) {
    run("Nov 15, 2026 a");
    EXPECT_EQ(run("b"), "Nov 15, 2026 b");
    run("Nov 16, 2026 c");
    EXPECT_EQ(run("d"), "Nov 16, 2026 d");
    EXPECT_EQ(run("e"), "Nov 16, 2026 e");
}

TEST_F(BigFix, SizesTheRememberedTextToEachMatch) {
    run("M 1, x");
    EXPECT_EQ(remembered(), "M 1, x");
    const std::string longer = "September_and_more 1234567890, " + std::string(500, 'y');
    run(longer);
    EXPECT_EQ(remembered(), longer);
    EXPECT_EQ(run("z"), longer + " z");
    run("M 2, q");
    EXPECT_EQ(run("z"), "M 2, q z");
}

TEST_F(BigFix, FallsBackToTheFilesFirst13Bytes) {
    file_holds("0123456789abcdefgh");
    EXPECT_EQ(run("plain"), "0123456789abc plain");
    EXPECT_EQ(ftell(stream_), 5) << "the position of the stream is not moved";
    EXPECT_EQ(remembered(), "0123456789abc");
}

TEST_F(BigFix, TakesWhatAShortFileHas) {
    file_holds("ab");
    EXPECT_EQ(run("plain"), "ab plain");
}

TEST_F(BigFix, TakesTheStringLengthForALengthOfZero) {
    run("Nov 15, 2026 a");
    EXPECT_EQ(run("event", 0), "Nov 15, 2026 event");
}

TEST_F(BigFix, ACopyOfTheStateOutlivesIt) {
    EXPECT_EQ(big_fix_copy_state(nullptr), nullptr);
    run("Nov 15, 2026 a");
    void *copy = big_fix_copy_state(state_);
    run("Nov 16, 2026 a");
    EXPECT_STREQ(static_cast<char *>(copy), "Nov 15, 2026");
    big_fix_teardown_event(&copy);
    EXPECT_EQ(copy, nullptr);
}

TEST_F(BigFix, GoesOnWithoutAFile) {
    int length = 1;
    char *event = strdup("x");
    EXPECT_EQ(big_fix_process_event(&event, &length, &state_, nullptr, nullptr), 1);
    EXPECT_STREQ(event, " x");
    free(event);
}

}  // namespace
