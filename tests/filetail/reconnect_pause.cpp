// The pause before another attempt to connect: with reconnect_wait it lies by chance between half
// of the value and all of it, so that many hosts do not come back in step.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "filetail/ruv.h"

namespace {

using steady = std::chrono::steady_clock;

struct throw_of_dice {
    uint32_t below;
    uint32_t result;
    steady::time_point at;
};
std::vector<throw_of_dice> thrown;
const uint32_t kResults[] = {0, 500, 0};

}  // namespace

// The linker sends the daemon's own calls here.
extern "C" uint32_t __wrap_arc4random_uniform(uint32_t below) {
    const uint32_t result = kResults[thrown.size()];
    thrown.push_back({below, result, steady::now()});
    if (thrown.size() == std::size(kResults)) stop_execution();
    return result;
}

namespace {

TEST(ReconnectPause, LiesBetweenHalfOfTheValueAndAllOfIt) {
    logger_init(0, nullptr, 0);
    execution_reset_for_start();
    conf.reconnect_wait = 1;  // second; without a host every attempt fails at once
    plugin p = {};
    EXPECT_EQ(ruv_ensure_connected(&p), -1);
    ASSERT_EQ(thrown.size(), std::size(kResults));
    for (size_t i = 0; i < thrown.size(); ++i) {
        EXPECT_EQ(thrown[i].below, 501u) << "0 to 500 ms";
        if (i == 0) continue;
        const auto paused = thrown[i].at - thrown[i - 1].at;
        EXPECT_GE(paused, std::chrono::milliseconds(500 + thrown[i - 1].result));
    }
    execution_reset_for_start();
}

}  // namespace
