// Opt-in wake_on_change: what a worker that waits for a change does when the changes bring nothing,
// and when it is stopped.

#include <chrono>

#include "config/siem_config.h"
#include "filetail/filetail.h"
#include "tests/filetail/reader_kit.h"

namespace {

using namespace reader_kit;

class WokenWorker : public ReaderTest {
  protected:
    void SetUp() override {
        ReaderTest::SetUp();
        p.sleep = 300;
        conf.wake_on_change = 1;
        // Longer than the part that a file is recognised by, so that growing does not make it new.
        bookmark_kit::write_file(logs + "a", std::string(300, 'x') + "\n");
    }
    void TearDown() override {
        stop();
        for (int32_t i = 0; i < p.bm_count; ++i) free_tail_group(p.ft.bm[i]);
        free(p.ft.bm);
        p.ft.bm = nullptr;
        p.bm_count = 0;
        conf.rotation_drain = 0;
        ReaderTest::TearDown();
    }
    void start() {
        serve({fake::serve()});
        ASSERT_EQ(ruv_init(&conf), 0);
        wchar_t *directory = wide(root);
        EXPECT_EQ(ft_init(&p, directory, 1), 0);
        free(directory);
        ASSERT_EQ(arrived(1).size(), 1u);
    }
    void stop() {
        stop_execution();
        for (int32_t i = 0; i < p.bm_count; ++i) {
            if (p.ft.bm[i]->t == nullptr) continue;
            pthread_join(*p.ft.bm[i]->t, nullptr);
            free(p.ft.bm[i]->t);
            p.ft.bm[i]->t = nullptr;
        }
    }
};

// A line that grows byte by byte is looked at a few dozen times a second, not at every byte.
TEST_F(WokenWorker, UnfinishedLineIsNotReadAgainAtEveryByte) {
    Capture log(15);
    start();
    usleep(50'000);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 600; ++i) {
        bookmark_kit::append_file(logs + "a", "y");
        usleep(500);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    bookmark_kit::append_file(logs + "a", "\n");
    EXPECT_EQ(arrived(2).back(), std::string(600, 'y') + " ");
    stop();
    const size_t looks = count_of(log.text(), "Sent 0 event(s) to SIEM from " + logs + "a\n");
    EXPECT_GT(looks, 0u);
    // Each look beyond the first ones is followed by at least 20 ms.
    EXPECT_LT(static_cast<double>(looks), 40 + took.count() / 0.020);
}

TEST_F(WokenWorker, StopEndsItsWait) {
    start();
    usleep(50'000);
    stop();  // or the test would last for the pause of five minutes
    EXPECT_EQ(p.ft.bm[0]->t, nullptr);
}

TEST_F(WokenWorker, WriterThatIsLateWakesToo) {
    conf.rotation_drain = 1;
    free(p.ft.ft_filter);
    p.ft.ft_filter = wide("a");
    start();
    bookmark_kit::replace_by_empty(logs + "a", logs + "a.1");
    for (int i = 0; i < 5; ++i) {
        bookmark_kit::append_file(logs + "a.1", std::to_string(i) + "\n");
        ASSERT_EQ(arrived(static_cast<size_t>(i) + 2).back(), std::to_string(i) + " ");
    }
    bookmark_kit::append_file(logs + "a", "new\n");
    EXPECT_EQ(arrived(7).back(), "new ");
}

}  // namespace
