// The start of the connection in a process that has no memory left: nobody above it would catch an
// exception.
#include <gtest/gtest.h>

#include "config/siem_config.h"
#include "core/siemcollector_log.h"
#include "filetail/ruv.h"
#include "tests/support/no_memory.h"

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
