// The bridge in a process that has no memory left, from its first call to its last.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "core/siemcollector_log.h"
#include "lpc_interface/lpc_interface.h"
#include "tests/lpc_interface/kit.h"

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

namespace {

// What the bridge keeps for the life of a process is made by its first call, or by none.
TEST(BridgeWithoutMemory, FailsAndEndsInOrder) {
    const std::string log = logged([] {
        no_memory = true;
        const int result = init_lpc(lpc_log);
        deinit_lpc();
        no_memory = false;
        EXPECT_EQ(result, -1);
    });
    EXPECT_EQ(log, "(ERROR) Initializing LPC failed\n(INFO) DeInitializing LPC\n");
}

}  // namespace
