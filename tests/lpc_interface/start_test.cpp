// The bridge on a host without an agent, and the callback for the pass phrase.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>

#include "core/siemcollector_log.h"
#include "lpc/logger.h"
#include "lpc/runtime_location.h"
#include "lpc_interface/lpc_interface.h"
#include "tests/lpc_interface/kit.h"

namespace {

TEST(Bridge, WithoutAnAgentItSaysSo) {
    if (std::filesystem::exists(velmor_com::NQ::LPC::kAgentConfigFile))
        GTEST_SKIP() << "this host has an agent";
    const std::string log = logged([] { EXPECT_EQ(init_lpc(lpc_log), 1); });
    EXPECT_EQ(log, "(DEBUG) LPC Process UID: LOGRELAY1000:" + std::to_string(getpid()) +
                       ":0001\n(DEBUG) Initializing LPC\n"
                       "(DEBUG) Unable to find LPC runtime location\n(INFO) LPC not installed\n");
    EXPECT_EQ(logged(deinit_lpc), "(INFO) DeInitializing LPC\n");
}

TEST(Bridge, ServicesCannotRunWithoutARuntime) {
    velmor_com::NQ::Services::LPCLogger::getLogger()->registerGeneralLogger(lpc_log);
    const LeaksAllowed servants;  // those of a failed start are not deleted
    const std::string log = logged(startPointProductServicesCallBack);
    const std::string why =
        "(DEBUG) Unable to access LPC repository, please check LPC runtime\n(ERROR) Unable to run "
        "the ";
    EXPECT_EQ(log, why + "updater service\n" + why + "property collection service\n" + why +
                       "policy enforcement service\n");
    EXPECT_EQ(logged(stopPointProductServicesCallBack), "");
}

class PassPhrase : public testing::Test {
  protected:
    void SetUp() override {
        for (uint32_t i = 0; i < kPassphraseCapacity; i++)
            g_lpc_passphrase[i] = static_cast<unsigned char>(200 - i);
        g_passphrase_length = kPassphraseCapacity;
        buffer.fill(7);
    }
    bool untouched() const {
        return std::all_of(buffer.begin(), buffer.end(), [](int byte) { return byte == 7; });
    }
    std::array<unsigned char, 100> buffer;
};

TEST_F(PassPhrase, ASmallBufferIsRefused) {
    unsigned long size = 63;
    EXPECT_FALSE(sHA1_Validation_callback(nullptr, 0, buffer.data(), &size));
    EXPECT_EQ(size, 63u);
    EXPECT_TRUE(untouched());
}

TEST_F(PassPhrase, ALargeBufferGetsTheBytesAndTheirNumber) {
    unsigned long size = 100;
    const unsigned char ignored[4] = {};
    EXPECT_TRUE(sHA1_Validation_callback(ignored, 4, buffer.data(), &size));
    EXPECT_EQ(size, 64u);
    EXPECT_EQ(memcmp(buffer.data(), g_lpc_passphrase, 64), 0);
    EXPECT_EQ(buffer[64], 7);
    size = 64;
    EXPECT_TRUE(sHA1_Validation_callback(nullptr, 0, buffer.data(), &size));
}

TEST_F(PassPhrase, OnlyTheValidBytesCount) {
    g_passphrase_length = 5;
    unsigned long size = 5;
    EXPECT_TRUE(sHA1_Validation_callback(nullptr, 0, buffer.data(), &size));
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(buffer[5], 7);
}

TEST_F(PassPhrase, NullIsRefused) {
    unsigned long size = 100;
    EXPECT_FALSE(sHA1_Validation_callback(nullptr, 0, nullptr, &size));
    EXPECT_FALSE(sHA1_Validation_callback(nullptr, 0, buffer.data(), nullptr));
    EXPECT_TRUE(untouched());
}

}  // namespace
