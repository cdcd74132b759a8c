// Identifiers of processes: their classes and their making.
#include "lpc/process_id.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/lpc/log_capture.h"

namespace velmor_com::NQ::LPC {
namespace {

TEST(ProcessId, EveryClassOfTheTable) {
    const std::string tag_of_40(40, 't');
    const struct {
        std::string id;
        int type;
    } rows[] = {
        {"", -1},
        {std::string(50, 'a'), 4},
        {std::string(51, 'a'), -1},
        {"OZUAGENT" + std::string(43, 'x'), -1},
        {"OZUAGENT" + std::string(42, 'x'), 3},
        {"base:tag", -1},
        {"a:b:c:d", -1},
        {"OZUAGENT", 3},
        {"OZUAGENT3700LYNX", 3},
        {"OZUAGENT:DEFAULT:77", 3},
        {"OZUAGENT:77", -1},
        {"ozuagent", 4},
        {"LOGRELAY1000", 4},
        {"LOGRELAY1000:4711:0001", 0},
        {"LOGRELAY1000:47:0001", 0},
        {"LOGRELAY1000:4:0001", 2},
        {"LOGRELAY1000::0001", -1},
        {"LOGRELAY1000:4711:0002", -1},
        {"LOGRELAY1000:4711:", -1},
        {"LOGRELAY1000:DEFAULT:4711", 1},
        {"LOGRELAY1000:DEFAULT:0001", -1},
        {"LOGRELAY1000:default:4711", -1},
        {"LOGRELAY1000:DEFAULTX:0001", 0},
    };
    for (const auto &row : rows) EXPECT_EQ(getLPCIdType(row.id), row.type) << row.id;
}

TEST(ProcessId, BaseTagAndSuffix) {
    std::string id;
    EXPECT_TRUE(generateLPCProcessUID("LOGRELAY1000", "4711", id));
    EXPECT_EQ(id, "LOGRELAY1000:4711:0001");
    EXPECT_TRUE(generateLPCProcessUID("OZUAGENT", "DEFAULT", id));
    EXPECT_EQ(id, "OZUAGENT:DEFAULT:" + std::to_string(getpid()));
}

TEST(ProcessId, AtMostFiftyCharacters) {
    LogCapture log;
    std::string id = "old";
    EXPECT_TRUE(generateLPCProcessUID("LOGRELAY1000", std::string(32, 't'), id));
    EXPECT_EQ(id.size(), 50u);
    EXPECT_FALSE(generateLPCProcessUID("LOGRELAY1000", std::string(33, 't'), id));
    EXPECT_EQ(id, "");
    EXPECT_FALSE(generateLPCProcessUID("LOGRELAY1000", std::string(40, 't'), id));
    EXPECT_EQ(log.all(), (std::vector<LogCapture::Line>(
                             2, {kErrorLine, L"LPC process ID exceeds max ID length"})));
}

TEST(ProcessId, NeedsBaseAndTag) {
    LogCapture log;
    std::string id = "old";
    EXPECT_FALSE(generateLPCProcessUID("", "tag", id));
    EXPECT_FALSE(generateLPCProcessUID("base", "", id));
    EXPECT_EQ(id, "old");
    EXPECT_EQ(log.all(), (std::vector<LogCapture::Line>(2, {kErrorLine, L"Invalid argument"})));
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
