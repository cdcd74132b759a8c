// Spin lock that records its owner.
//
// The lock is one 32-bit word: 0 when free, else the Linux thread id of its owner. It never sleeps
// and has no timeout, so hold it only for short work; where the holder may wait for the network,
// take it with spinlock_engage_politely(). It does not count: engaging it twice on one thread
// succeeds at once, and a single release frees it. Any thread may call any function.
#pragma once

#include <sched.h>

#include <atomic>
#include <cstdint>

using lock_word = std::atomic<uint32_t>;

/// A lock word with a recursion count, for spinlock_inc() and spinlock_dec().
struct counting_lock {
    lock_word l;  ///< owner's thread id, 0 = free
    uint32_t c;   ///< recursion count, touched only by the owner
};

/// Returns the calling thread's id, fetched from the kernel once per thread.
uint32_t spinlock_self();

/// Takes the lock; returns at once when the caller already owns it.
void spinlock_engage(lock_word *lock);

/// Frees the lock when the caller owns it; otherwise does nothing.
void spinlock_release(lock_word *lock);

/// Like spinlock_engage(), but after a short spin it sleeps between attempts (at most 2 ms each),
/// so that waiters leave the processor alone while the holder waits for the network.
void spinlock_engage_politely(lock_word *lock);

/// Recursive acquire: takes the lock unless the caller owns it, stores the count as it was before
/// into *count, then adds 1 to it.
void spinlock_inc(counting_lock *lock, uint32_t *count);

/// Undoes spinlock_inc(): while the count is above `count`, subtracts 1, and frees the lock when it
/// comes down to `count` on the owner's thread.
void spinlock_dec(counting_lock *lock, uint32_t count);

/// spinlock_engage() for an explicit non-zero owner value in place of the caller's thread id.
inline void spinlock_engage_as(lock_word *lock, uint32_t owner) {
    uint32_t seen = lock->load(std::memory_order_acquire);
    if (seen == owner) return;
    for (uint32_t spins = 1;; ++spins) {
        if (seen == 0 && lock->compare_exchange_strong(seen, owner, std::memory_order_acquire,
                                                       std::memory_order_relaxed)) {
            return;
        }
        if ((spins & 0xff) == 0) sched_yield();
        seen = lock->load(std::memory_order_relaxed);
    }
}

/// spinlock_release() for an explicit owner value.
inline void spinlock_release_as(lock_word *lock, uint32_t owner) {
    if (lock->load(std::memory_order_relaxed) == owner) lock->store(0, std::memory_order_release);
}

/// Holds a lock for the life of the guard, taken politely. Do not nest guards of one lock on one
/// thread: the inner one would free it.
class spinlock_guard {
  public:
    explicit spinlock_guard(lock_word &lock) : lock_(lock) { spinlock_engage_politely(&lock_); }
    ~spinlock_guard() { spinlock_release(&lock_); }
    spinlock_guard(const spinlock_guard &) = delete;
    spinlock_guard &operator=(const spinlock_guard &) = delete;

  private:
    lock_word &lock_;
};
