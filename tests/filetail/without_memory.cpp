// The start of the connection in a process that has no memory left: nobody above it would catch an
// exception.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "config/siem_config.h"
#include "core/siemcollector_log.h"
#include "filetail/ruv.h"

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

TEST(WithoutMemory, AStartThatCannotConnectGoesOn) {
    logger_init(kLogError, nullptr, 0);
    testing::internal::CaptureStdout();
    no_memory = true;
    const int result = ruv_init(&conf);  // without a host there is nothing to connect to
    no_memory = false;
    const std::string log = testing::internal::GetCapturedStdout();
    ruv_teardown(&conf);
    EXPECT_EQ(result, 1);
    EXPECT_NE(log.find("(ERROR) Error connecting to the Receiver: out of memory\n"),
              std::string::npos)
        << log;
}

}  // namespace
