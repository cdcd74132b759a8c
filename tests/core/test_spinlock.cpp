#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/spinlock.h"
#include "tests/core/sandbox.h"

namespace {

uint32_t kernel_id() {
    return static_cast<uint32_t>(syscall(SYS_gettid));
}

TEST(Spinlock, TheWordHoldsTheOwnersThreadId) {
    lock_word lock{0};
    spinlock_engage(&lock);
    EXPECT_EQ(lock, kernel_id());
    spinlock_release(&lock);
    EXPECT_EQ(lock, 0u);
}

TEST(Spinlock, TwoEngagesOfOneThreadAreUndoneByOneRelease) {
    lock_word lock{0};
    spinlock_engage(&lock);
    spinlock_engage(&lock);
    spinlock_release(&lock);
    EXPECT_EQ(lock, 0u);
}

TEST(Spinlock, AnotherThreadsReleaseLeavesItHeld) {
    lock_word lock{0};
    spinlock_engage(&lock);
    std::thread([&] { spinlock_release(&lock); }).join();
    EXPECT_EQ(lock, kernel_id());
    spinlock_release(&lock);
    spinlock_release(&lock);  // not held at all
    EXPECT_EQ(lock, 0u);
}

void count_under(void (*engage)(lock_word *)) {
    constexpr int kThreads = 4, kRounds = 5000;
    lock_word lock{0};
    int counter = 0;  // plain on purpose: only the lock orders the threads
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                engage(&lock);
                ++counter;
                spinlock_release(&lock);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(counter, kThreads * kRounds);
    EXPECT_EQ(lock, 0u);
}

TEST(Spinlock, OnlyOneThreadHoldsIt) {
    count_under(spinlock_engage);
}

TEST(Spinlock, OnlyOneThreadHoldsItPolitely) {
    count_under(spinlock_engage_politely);
}

TEST(Spinlock, APoliteTakerWaitsForALongHolder) {
    lock_word lock{0};
    spinlock_engage(&lock);
    std::atomic<bool> taken{false};
    std::thread waiter([&] {
        const spinlock_guard guard(lock);
        taken = true;
    });
    usleep(30'000);
    EXPECT_FALSE(taken);
    spinlock_release(&lock);
    waiter.join();
    EXPECT_TRUE(taken);
    EXPECT_EQ(lock, 0u);
}

TEST(Spinlock, APoliteEngageByTheOwnerReturnsAtOnce) {
    lock_word lock{0};
    spinlock_engage(&lock);
    spinlock_engage_politely(&lock);
    EXPECT_EQ(lock, kernel_id());
    spinlock_release(&lock);
}

TEST(Spinlock, TheCountingFormIsRecursive) {
    counting_lock lock{{0}, 0};
    uint32_t outer = 99, inner = 99;
    spinlock_inc(&lock, &outer);
    spinlock_inc(&lock, &inner);
    EXPECT_EQ(outer, 0u);
    EXPECT_EQ(inner, 1u);
    EXPECT_EQ(lock.c, 2u);
    spinlock_dec(&lock, outer);
    EXPECT_EQ(lock.c, 1u);
    EXPECT_EQ(lock.l, kernel_id()) << "not yet down to where the outer level began";
    spinlock_dec(&lock, outer);
    EXPECT_EQ(lock.c, 0u);
    EXPECT_EQ(lock.l, 0u);
}

TEST(Spinlock, ADecreaseToTheInnerValueFreesTheLockEarly) {
    counting_lock lock{{0}, 0};
    uint32_t outer = 99, inner = 99;
    spinlock_inc(&lock, &outer);
    spinlock_inc(&lock, &inner);
    spinlock_dec(&lock, inner);
    EXPECT_EQ(lock.c, 1u);
    EXPECT_EQ(lock.l, 0u);
}

TEST(Spinlock, ADecreaseThatIsAlreadyReachedDoesNothing) {
    counting_lock lock{{0}, 0};
    uint32_t before = 0;
    spinlock_inc(&lock, &before);
    spinlock_dec(&lock, 1);
    EXPECT_EQ(lock.c, 1u);
    EXPECT_EQ(lock.l, kernel_id());
    spinlock_dec(&lock, before);
    EXPECT_EQ(lock.l, 0u);
}

TEST(Spinlock, AnExplicitOwnerTakesThePlaceOfTheThread) {
    lock_word lock{0};
    spinlock_engage_as(&lock, 7);
    EXPECT_EQ(lock, 7u);
    spinlock_engage_as(&lock, 7);
    spinlock_release_as(&lock, 8);
    EXPECT_EQ(lock, 7u);
    spinlock_release(&lock);
    EXPECT_EQ(lock, 7u);
    spinlock_release_as(&lock, 7);
    EXPECT_EQ(lock, 0u);
}

TEST(Spinlock, AForkedChildHasItsOwnId) {
    EXPECT_EQ(spinlock_self(), kernel_id());
    const child_result child = run_in_child([] { _exit(spinlock_self() == kernel_id() ? 0 : 1); });
    EXPECT_EQ(child.status, 0);
}

}  // namespace
