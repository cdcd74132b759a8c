// What the helper library says of the length of the pass phrase is not believed beyond the buffer.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "lpc/helper_library.h"
#include "lpc/runtime_location.h"

namespace velmor_com::NQ::LPC {
namespace {

TEST(HelperLibrary, ALengthBeyondTheBufferIsCut) {
    if (std::filesystem::exists(kAgentConfigFile)) GTEST_SKIP() << "this host has an agent";
    std::array<unsigned char, 80> buffer{};
    uint32_t length = 64;
    EXPECT_TRUE(obtain_passphrase("LOGRELAY1000", buffer.data(), &length));
    EXPECT_EQ(length, 64u);
    EXPECT_EQ(std::count(buffer.begin(), buffer.end(), 'p'), 64);
    EXPECT_EQ(std::count(buffer.begin() + 64, buffer.end(), 0), 16);
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
