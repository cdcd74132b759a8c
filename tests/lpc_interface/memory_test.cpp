// The bridge in a process that has no memory left, from its first call to its last.
#include <gtest/gtest.h>

#include "core/siemcollector_log.h"
#include "lpc_interface/lpc_interface.h"
#include "tests/lpc_interface/kit.h"
#include "tests/support/no_memory.h"

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
