#include "core/spinlock.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

namespace {

constexpr int kPoliteSpins = 256;
constexpr long kFirstSleepNanoseconds = 50'000;
constexpr long kLongestSleepNanoseconds = 2'000'000;

thread_local uint32_t o_self = 0;

void forget_self() {
    o_self = 0;
}

bool try_engage(lock_word *lock, uint32_t self) {
    uint32_t free_word = 0;
    return lock->compare_exchange_strong(free_word, self, std::memory_order_acquire,
                                         std::memory_order_relaxed);
}

}  // namespace

uint32_t spinlock_self() {
    if (o_self == 0) {
        // The child of a fork (detaching is one) is another thread to the kernel.
        static const int registered = pthread_atfork(nullptr, nullptr, forget_self);
        (void)registered;
        o_self = static_cast<uint32_t>(syscall(SYS_gettid));
    }
    return o_self;
}

void spinlock_engage(lock_word *lock) {
    spinlock_engage_as(lock, spinlock_self());
}

void spinlock_release(lock_word *lock) {
    spinlock_release_as(lock, spinlock_self());
}

void spinlock_engage_politely(lock_word *lock) {
    const uint32_t self = spinlock_self();
    if (lock->load(std::memory_order_relaxed) == self) return;
    for (int spins = 0; spins < kPoliteSpins; ++spins) {
        if (lock->load(std::memory_order_relaxed) == 0 && try_engage(lock, self)) return;
    }
    long pause_nanoseconds = kFirstSleepNanoseconds;
    while (lock->load(std::memory_order_relaxed) != 0 || !try_engage(lock, self)) {
        const timespec pause = {0, pause_nanoseconds};
        nanosleep(&pause, nullptr);
        pause_nanoseconds = std::min(2 * pause_nanoseconds, kLongestSleepNanoseconds);
    }
}

void spinlock_inc(counting_lock *lock, uint32_t *count) {
    spinlock_engage(&lock->l);  // returns at once for the owner
    *count = lock->c++;
}

void spinlock_dec(counting_lock *lock, uint32_t count) {
    if (lock->c <= count) return;
    // Kept: a nested level that comes down to its own value frees the lock, although the outer
    // level still counts; whoever nests passes the outermost value.
    if (--lock->c == count) spinlock_release(&lock->l);  // does nothing for anyone but the owner
}
