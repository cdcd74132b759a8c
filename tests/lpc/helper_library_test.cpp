// The pass phrase, where there is no helper library: from the system's random source.
#include "lpc/helper_library.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace velmor_com::NQ::LPC {
namespace {

TEST(HelperLibrary, WithoutItTheBufferIsFilledAtRandom) {
    std::array<unsigned char, 80> first{}, second{};
    for (auto *buffer : {&first, &second}) {
        uint32_t length = 64;
        if (obtain_passphrase("LOGRELAY1000", buffer->data(), &length))
            GTEST_SKIP() << "this host has the agent's helper library";
        EXPECT_EQ(length, 64u);
        EXPECT_TRUE(std::all_of(buffer->begin() + 64, buffer->end(), [](int b) { return b == 0; }));
    }
    EXPECT_NE(first, second);
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
