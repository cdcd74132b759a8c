#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/execution.h"
#include "core/utils.h"
#include "tests/core/sandbox.h"

namespace {

struct Execution : testing::Test {
    void SetUp() override { execution_reset_for_start(); }
    void TearDown() override { execution_reset_for_start(); }
};

TEST_F(Execution, StartsExecuting) {
    EXPECT_EQ(exec_status(), 1);
    EXPECT_EQ(is_executing(), 1);
    EXPECT_EQ(is_running(), 1);
}

TEST_F(Execution, APauseStopsTheWorkersButNotTheMainLoop) {
    pause_execution();
    EXPECT_EQ(exec_status(), 5);
    EXPECT_EQ(is_executing(), 0);
    EXPECT_EQ(is_running(), 1);
    resume_execution();
    EXPECT_EQ(exec_status(), 1);
    EXPECT_EQ(is_executing(), 1);
}

TEST_F(Execution, AStopEndsBoth) {
    stop_execution();
    EXPECT_EQ(exec_status(), 2);
    EXPECT_EQ(is_executing(), 0);
    EXPECT_EQ(is_running(), 0);
}

TEST_F(Execution, AStopDuringAPauseSurvivesTheResume) {
    pause_execution();
    stop_execution();
    EXPECT_EQ(exec_status(), 2);
    resume_execution();
    EXPECT_EQ(exec_status(), 2);
}

TEST_F(Execution, ResumingWithoutAPauseChangesNothing) {
    resume_execution();
    EXPECT_EQ(exec_status(), 1);
}

TEST_F(Execution, NoStopIsLostWhilePausesAndResumesRace) {
    for (int round = 0; round < 200; ++round) {
        execution_reset_for_start();
        std::atomic<bool> go{false};
        std::thread restarts([&] {
            while (!go) std::this_thread::yield();
            for (int i = 0; i < 20; ++i) {
                pause_execution();
                resume_execution();
            }
        });
        go = true;
        stop_execution();
        restarts.join();
        ASSERT_EQ(is_running(), 0) << "round " << round;
    }
}

TEST_F(Execution, ALongSleepEndsSoonAfterAStopOrAPause) {
    for (void (*leave)() : {stop_execution, pause_execution}) {
        execution_reset_for_start();
        std::atomic<bool> over{false};
        std::thread sleeper([&] {
            safe_sleep(300);
            over = true;
        });
        usleep(20'000);
        EXPECT_FALSE(over);
        leave();
        EXPECT_TRUE(eventually([&] { return over.load(); }));
        sleeper.join();
    }
}

TEST_F(Execution, ASleepOfNothingReturnsAtOnce) {
    const auto start = std::chrono::steady_clock::now();
    safe_sleep(0);
    safe_sleep(-5);
    stop_execution();
    safe_sleep(300);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

TEST_F(Execution, AWaitLastsItsTimeAlsoAfterAnEarlierPause) {
    pause_execution();
    EXPECT_EQ(wait_while_executing(60'000), 0);
    resume_execution();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_while_executing(50), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
}

TEST_F(Execution, AStopWakesEveryWait) {
    std::atomic<int> left{0};
    std::thread main_loop([&] {
        while (wait_while_running(600'000)) {
        }
        ++left;
    });
    std::thread worker([&] {
        while (wait_while_executing(600'000)) {
        }
        ++left;
    });
    usleep(20'000);
    stop_execution();
    EXPECT_TRUE(eventually([&] { return left == 2; }));
    main_loop.join();
    worker.join();
}

TEST_F(Execution, AWaitForADescriptorEndsWithItOrWithAStop) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(wait_readable_while_executing(ends[0], 0), 0);
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(wait_readable_while_executing(ends[0], 600'000), 1);
    char byte;
    ASSERT_EQ(read(ends[0], &byte, 1), 1);
    pause_execution();
    EXPECT_EQ(wait_readable_while_executing(ends[0], 600'000), 0);
    resume_execution();
    EXPECT_EQ(wait_readable_while_executing(ends[0], 20), 0) << "the pause is over";
    std::atomic<bool> over{false};
    std::thread waiter([&] {
        wait_readable_while_executing(ends[0], 600'000);
        over = true;
    });
    usleep(20'000);
    stop_execution();
    EXPECT_TRUE(eventually([&] { return over.load(); }));
    waiter.join();
    for (const int fd : ends) close(fd);
}

TEST_F(Execution, APauseDoesNotWakeTheMainLoop) {
    pause_execution();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(wait_while_running(50), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
}

TEST_F(Execution, AWorkerStartedDuringAPauseWaitsForItsEnd) {
    pause_execution();
    std::atomic<int> answer{-1};
    std::thread worker([&] { answer = wait_until_resumed(); });
    usleep(30'000);
    EXPECT_EQ(answer, -1);
    resume_execution();
    EXPECT_TRUE(eventually([&] { return answer != -1; }));
    worker.join();
    EXPECT_EQ(answer, 1);
}

TEST_F(Execution, AWorkerStartedWithoutAPauseDoesNotWait) {
    EXPECT_EQ(wait_until_resumed(), 1);
}

TEST_F(Execution, AStopReleasesAWorkerThatWaitsForTheEndOfAPause) {
    pause_execution();
    std::atomic<int> answer{-1};
    std::thread worker([&] { answer = wait_until_resumed(); });
    stop_execution();
    EXPECT_TRUE(eventually([&] { return answer != -1; }));
    worker.join();
    EXPECT_EQ(answer, 0);
}

TEST_F(Execution, AJoinReleasesAWorkerThatWaitsForTheEndOfAPause) {
    pause_execution();
    std::atomic<int> answer{-1};
    std::thread worker([&] { answer = wait_until_resumed(); });
    begin_joining_workers();
    worker.join();  // would hang if the worker waited on
    end_joining_workers();
    EXPECT_EQ(answer, 0);
}

TEST_F(Execution, TheGuardKeepsTheFourStopSignalsAwayAndPutsTheMaskBack) {
    const auto blocked = [](int signum) {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return sigismember(&mask, signum) == 1;
    };
    {
        const stop_signals_blocked quiet;
        for (const int signum : {1, 2, 3, 15}) EXPECT_TRUE(blocked(signum)) << signum;
        EXPECT_FALSE(blocked(SIGUSR1));
        bool inherited = false;
        std::thread([&] { inherited = blocked(SIGTERM); }).join();
        EXPECT_TRUE(inherited);
    }
    for (const int signum : {1, 2, 3, 15}) EXPECT_FALSE(blocked(signum)) << signum;
}

}  // namespace
