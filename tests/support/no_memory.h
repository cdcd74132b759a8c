// Takes all memory from operator new while `no_memory` is set. Replaces the operators of the whole
// test program, so include it in one source of a program of its own.
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

static std::atomic<bool> no_memory{false};

// Not inlined: the compiler would see malloc() and free() and call them a mismatch of new and
// delete.
[[gnu::noinline]] void *operator new(size_t size) {
    void *block = no_memory ? nullptr : malloc(size);
    if (!block) throw std::bad_alloc();
    return block;
}

[[gnu::noinline]] void operator delete(void *block) noexcept {
    free(block);
}

[[gnu::noinline]] void operator delete(void *block, size_t) noexcept {
    free(block);
}
