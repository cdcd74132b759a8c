// The switchboard: which sink a message takes.
#include "lpc/logger.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace velmor_com::NQ::Services {
namespace {

std::vector<std::wstring> seen;

void general(int level, const wchar_t *message) {
    seen.push_back(std::to_wstring(level) + L"|" + message);
}
void info(const wchar_t *module, const wchar_t *message) {
    seen.push_back(std::wstring(L"info|") + module + L"|" + message);
}
void detail(const wchar_t *module, const wchar_t *) {
    seen.push_back(std::wstring(L"detail|") + module);
}
void warning(const wchar_t *module, const wchar_t *) {
    seen.push_back(std::wstring(L"warning|") + module);
}
void error(const wchar_t *module, const wchar_t *) {
    seen.push_back(std::wstring(L"error|") + module);
}
void debug(const wchar_t *module, const wchar_t *) {
    seen.push_back(std::wstring(L"debug|") + module);
}

class Logger : public testing::Test {
  protected:
    void SetUp() override {
        seen.clear();
        LPCLogger::releaseLogger();
    }
    void TearDown() override { LPCLogger::releaseLogger(); }

    static void log_each() {
        LPCLogger *logger = LPCLogger::getLogger();
        logger->logInfo(L"M", L"i");
        logger->logDetail(L"M", L"d");
        logger->logWarning(L"M", L"w");
        logger->logError(L"M", L"e");
        logger->logDebug(L"M", L"g");
    }
};

TEST_F(Logger, IsOneUntilReleased) {
    LPCLogger *first = LPCLogger::getLogger();
    EXPECT_EQ(first, LPCLogger::getLogger());
    EXPECT_EQ(first->generalLogger(), nullptr);
    EXPECT_TRUE(first->registerGeneralLogger(general));
    EXPECT_EQ(LPCLogger::getLogger()->generalLogger(), general);
    LPCLogger::releaseLogger();
    EXPECT_EQ(LPCLogger::getLogger()->generalLogger(), nullptr);
}

TEST_F(Logger, TheGeneralLoggerComesFirstWithFixedLevels) {
    LPCLogger *logger = LPCLogger::getLogger();
    EXPECT_TRUE(logger->registerLogInfoMethod(info));
    EXPECT_TRUE(logger->registerGeneralLogger(general));
    log_each();
    EXPECT_EQ(seen, (std::vector<std::wstring>{L"1|i", L"4|d", L"2|w", L"0|e"}));
}

TEST_F(Logger, ThenTheMethodOfTheKind) {
    LPCLogger *logger = LPCLogger::getLogger();
    EXPECT_TRUE(logger->registerLogInfoMethod(info));
    EXPECT_TRUE(logger->registerLogDetailMethod(detail));
    EXPECT_TRUE(logger->registerLogWarningMethod(warning));
    EXPECT_TRUE(logger->registerLogErrorMethod(error));
    EXPECT_TRUE(logger->registerLogDebugMethod(debug));
    log_each();
    EXPECT_EQ(seen,
              (std::vector<std::wstring>{L"info|M|i", L"detail|M", L"warning|M", L"error|M"}));
}

TEST_F(Logger, ThenStandardOutputWhenEnabled) {
    std::wostringstream out;
    std::wstreambuf *before = std::wcout.rdbuf(out.rdbuf());
    log_each();
    EXPECT_EQ(out.str(), L"");
    LPCLogger::getLogger()->enableStdoutLogging();
    log_each();
    std::wcout.rdbuf(before);
    EXPECT_EQ(out.str(), L"M:i\nM:d\nM:w\nM:e\n");
}

}  // namespace
}  // namespace velmor_com::NQ::Services
