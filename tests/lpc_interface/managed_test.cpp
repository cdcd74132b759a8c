// The bridge with a runtime, and with a memory that runs out at a chosen moment.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>

#include "core/siemcollector_log.h"
#include "lpc/dylib_manager.h"
#include "lpc_interface/lpc_interface.h"
#include "tests/lpc_interface/kit.h"

// The k-th allocation that may fail does; 0: none.
static std::atomic<int> failing_allocation{0};

void *operator new(size_t size, const std::nothrow_t &) noexcept {
    if (failing_allocation > 0 && --failing_allocation == 0) return nullptr;
    return ::operator new(size);
}

namespace {

// The bridge starts once in a process, so this is one test: an attempt that fails, and one whose
// second registration fails while the services run all the same.
TEST(ManagedBridge, AFailedRegistrationStopsOnlyTheRegistrations) {
    const ConfigFile folder("rec_ip=1\n");
    setenv("LOOPBACK_AGENT_DIR", folder.folder().c_str(), 1);
    velmor_com::NQ::LPC::LPCDylibManager::setUTMode(true);
    // Without a callback block the framework refuses, and the next attempt is a first one.
    failing_allocation = 1;
    const std::string refused = logged([] { EXPECT_EQ(init_lpc(lpc_log), -1); });
    EXPECT_EQ(failing_allocation, 0);
    EXPECT_EQ(refused.substr(refused.find("(DEBUG) Initializing LPC")),
              "(DEBUG) Initializing LPC\n(DEBUG) Invalid argument\n"
              "(ERROR) Initializing LPC failed\n");

    // The callback block, the first factory, and then the one that fails.
    failing_allocation = 3;
    const std::string log = logged([] { EXPECT_EQ(init_lpc(lpc_log), 0); });
    EXPECT_EQ(failing_allocation, 0);
    EXPECT_EQ(log.substr(log.find("(INFO) LPC initialized")),
              "(INFO) LPC initialized\n(INFO) Registered IUpdateCallback\n"
              "(DEBUG) Memory allocation failure\n(ERROR) Failed to register IPropertyCollection\n"
              "(INFO) Started updater service\n(INFO) Started property collection service\n"
              "(INFO) Started policy enforcement service\n");

    EXPECT_EQ(logged([] { EXPECT_TRUE(registerInterfaces()); }),
              "(INFO) Registered IUpdateCallback\n(INFO) Registered IPropertyCollection\n"
              "(INFO) Registered IPolicyEnforcement\n(INFO) Registered IPolicyDataAccessor\n"
              "(INFO) Registered IPolicyDataAccessor\n");

    // The pass phrase is what the helper library has left with the agent.
    std::ostringstream kept;
    kept << std::ifstream(folder.folder() + "/LOGRELAY1000.passphrase", std::ios::binary).rdbuf();
    EXPECT_EQ(kept.str(), std::string(reinterpret_cast<char *>(g_lpc_passphrase), 64));
    EXPECT_EQ(g_passphrase_length, 64u);

    // Another start is refused and leaves the link as it is.
    const std::string again = logged([] { EXPECT_EQ(init_lpc(lpc_log), -1); });
    EXPECT_EQ(again.substr(again.find("(DEBUG) Initializing LPC")),
              "(DEBUG) Initializing LPC\n(DEBUG) Multiple initialization attempt\n"
              "(ERROR) Initializing LPC failed\n");
    EXPECT_NE(velmor_com::NQ::LPC::LPCDylibManager::instance()->createAsyncResultId(), 0u);

    EXPECT_EQ(logged(deinit_lpc),
              "(INFO) DeInitializing LPC\n"
              "(INFO) Successfully released LPC runtime libvlrlpc.so\n");
}

}  // namespace
