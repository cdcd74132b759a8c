#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <clocale>
#include <string>
#include <thread>
#include <vector>

#include "core/siemcollector_log.h"
#include "tests/core/sandbox.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

constexpr off_t kLimit = 10'485'760;

// Everything runs in children, since the logger takes standard error over.
std::string console(const std::function<void()> &work) {
    const child_result child = run_in_child(work);
    EXPECT_EQ(child.status, 0);
    EXPECT_EQ(child.err, "");
    return child.out;
}

TEST(LogLevels, WordsGiveCumulativeMasks) {
    const struct {
        const wchar_t *word;
        uint64_t mask, lib_level;
    } rows[] = {
        {L"ERROR", 1, 0},  {L"error", 1, 0},  {L"INFO", 3, 0},    {L"info", 3, 0},
        {L"WARN", 7, 1},   {L"warn", 7, 1},   {L"DEBUG", 15, 1},  {L"debug", 15, 1},
        {L"DIAG", 31, 15}, {L"diag", 31, 15}, {L"warning", 0, 0}, {L"Error", 0, 0},
        {L"", 0, 0},       {L"info ", 0, 0},  {nullptr, 0, 0},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(translate_level(row.word), row.mask);
        EXPECT_EQ(translate_lib_level(row.word), row.lib_level);
    }
}

TEST(LogLevels, ALineCarriesStampLevelAndMessage) {
    const std::string line = console([] {
        logger_init(31, nullptr, 0);
        logger(kLogInfo, "Initalizing Linux %s", "Agent");
    });
    EXPECT_THAT(line, testing::MatchesRegex("[A-Z][a-z][a-z] [0-9][0-9] [0-9][0-9]:[0-9][0-9]:"
                                            "[0-9][0-9] [0-9]{4}:\\(INFO\\) Initalizing Linux "
                                            "Agent\n"));
}

TEST(LogLevels, NamesOfTheLevels) {
    const std::string log = console([] {
        logger_init(0xFFFF, nullptr, 0);
        for (const uint64_t level : {1, 2, 4, 8, 16, 3, 32}) logger(level, "x");
    });
    EXPECT_EQ(without_stamps(log),
              "(ERROR) x\n(INFO) x\n(WARN) x\n(DEBUG) x\n(DIAG) x\n(UNKNOWN) x\n(UNKNOWN) x\n");
}

TEST(LogLevels, TheMaskDecides) {
    const std::string log = console([] {
        logger_init(3, nullptr, 0);
        logger(kLogInfo, "written");
        logger(kLogWarn, "dropped");
        set_log_level(7);
        logger(kLogWarn, "written too");
        set_log_level(0x10000 | 1);  // only the low 16 bits count
        logger(kLogInfo, "dropped");
        logger(0x10000, "dropped");
        logger(kLogError, "last");
    });
    EXPECT_EQ(without_stamps(log), "(INFO) written\n(WARN) written too\n(ERROR) last\n");
}

TEST(LogLevels, LogEnabledTellsWhatTheLoggerDoes) {
    console([] {
        set_log_level(7);
        const bool right = log_enabled(kLogWarn) && !log_enabled(kLogDebug) && !log_enabled(16);
        _exit(right ? 0 : 1);
    });
}

TEST(LogLevels, TheBridgesLevelsAreMapped) {
    const std::string log = console([] {
        logger_init(31, nullptr, 0);
        for (int level = -1; level <= 6; ++level) lpc_log(level, L"m");
        lpc_log(1, nullptr);
    });
    EXPECT_EQ(without_stamps(log),
              "(DEBUG) m\n(DEBUG) m\n(INFO) m\n(WARN) m\n(ERROR) m\n(DEBUG) m\n(DEBUG) m\n"
              "(DEBUG) m\n(INFO) \n");
}

TEST(LogLines, AnyLengthIsWrittenWhole) {
    for (const size_t size : {1900u, 2000u, 2020u, 2021u, 2022u, 2048u, 5000u, 1000000u}) {
        const std::string text(size, 'x');
        const std::string log = console([&] {
            logger_init(1, nullptr, 0);
            logger(kLogError, "%s", text.c_str());
        });
        EXPECT_EQ(without_stamps(log), "(ERROR) " + text + "\n");
    }
}

TEST(LogLines, SeveralThreadsDoNotInterleave) {
    constexpr int kThreads = 4, kLines = 200;
    const std::string log = console([] {
        logger_init(1, nullptr, 0);
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([i] {
                const std::string text(50 + 900 * static_cast<size_t>(i),
                                       static_cast<char>('a' + i));
                for (int line = 0; line < kLines; ++line) logger(kLogError, "%s", text.c_str());
            });
        }
        for (std::thread &thread : threads) thread.join();
    });
    std::istringstream lines(without_stamps(log));
    std::string line;
    int count = 0;
    for (; std::getline(lines, line); ++count) {
        const std::string text = line.substr(line.find(' ') + 1);
        ASSERT_FALSE(text.empty());
        EXPECT_EQ(text.find_first_not_of(text[0]), text.npos) << line;
        EXPECT_EQ(text.size(), 50u + 900u * static_cast<size_t>(text[0] - 'a'));
    }
    EXPECT_EQ(count, kThreads * kLines);
}

TEST(LogLines, WideTextSurvivesInEveryLocale) {
    for (const char *locale : {"C", "C.UTF-8"}) {
        const std::string log = console([locale] {
            setlocale(LC_CTYPE, locale);
            logger_init(31, nullptr, 0);
            logger(kLogInfo, "dir %ls end", L"/gr\u00fc\u00df");
            lpc_log(1, L"\u20ac");
            logger(kLogInfo, "%ls", std::wstring(3000, L'\u00fc').c_str());
        });
        std::string many;
        for (int i = 0; i < 3000; ++i) many += "\xc3\xbc";
        EXPECT_EQ(without_stamps(log),
                  "(INFO) dir /gr\xc3\xbc\xc3\x9f end\n(INFO) \xe2\x82\xac\n(INFO) " + many + "\n")
            << locale;
    }
}

TEST(LogLines, BytesThatTheLocaleCannotDecodeAreShownAsTheyAre) {
    for (const char *locale : {"C", "C.UTF-8"}) {
        const std::string log = console([locale] {
            setlocale(LC_CTYPE, locale);
            logger_init(3, nullptr, 0);
            // As core/utils.h widens C3 A9 FF in the C locale, and FF C3 in any.
            logger(kLogError, "%ls!", L"a\uf7c3\uf7a9\uf7ff");
            lpc_log(1, L"\uf7ff\u00e9\uf7c3");
            logger(kLogError, "%s", "\xef\x9f\xbf");  // narrow text means itself
        });
        EXPECT_EQ(without_stamps(log),
                  "(ERROR) a\xc3\xa9\xff!\n(INFO) \xff\xc3\xa9\xc3\n(ERROR) \xef\x9f\xbf\n")
            << locale;
    }
}

TEST(LogLines, TheStampHasTwentyCharacters) {
    char *stamp = get_time();
    EXPECT_EQ(strlen(stamp), 20u);
    free(stamp);
}

TEST(LogLines, TheCallersErrnoIsKept) {
    console([] {
        logger_init(1, nullptr, 0);
        errno = 42;
        logger(kLogError, "x");
        _exit(errno == 42 ? 0 : 1);
    });
}

struct LogFile : testing::Test {
    temp_dir dir;
    std::string path = dir / "logs/deep/collector.log";

    std::wstring wide() const { return {path.begin(), path.end()}; }
    child_result logged(const std::function<void()> &work) {
        const child_result child = run_in_child([&] {
            logger_init(7, wide().c_str(), 1);
            work();
        });
        EXPECT_EQ(child.status, 0);
        EXPECT_EQ(child.out, "");
        return child;
    }
    // What the log holds, but not a whole log that should have been emptied.
    std::string text() const { return without_stamps(read_file(path).substr(0, 1000)); }
    off_t size() const {
        struct stat info;
        return stat(path.c_str(), &info) == 0 ? info.st_size : -1;
    }
};

TEST_F(LogFile, IsMadeWithItsDirectories) {
    EXPECT_EQ(logged([] { logger(kLogInfo, "hello"); }).err, "");
    EXPECT_EQ(text(), "(INFO) hello\n");
}

TEST_F(LogFile, EachStartBeginsWithAnEmptyFile) {
    logged([] { logger(kLogInfo, "first"); });
    logged([] {});
    EXPECT_EQ(size(), 0);
}

TEST_F(LogFile, StandardErrorGoesThereToo) {
    logged([] { fprintf(stderr, "from the library\n"); });
    EXPECT_EQ(read_file(path), "from the library\n");
}

TEST_F(LogFile, TenMebibytesAreEmptiedByTheNextMessage) {
    logged([this] {
        if (truncate(path.c_str(), kLimit - 1) != 0) _exit(2);
        check_file_size();
        if (size() != kLimit - 1) _exit(3);
        if (truncate(path.c_str(), kLimit) != 0) _exit(4);
        logger(kLogInfo, "goes with the rest");
        if (size() != 0) _exit(5);
        logger(kLogInfo, "next");
    });
    EXPECT_EQ(text(), "(INFO) next\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

TEST_F(LogFile, AMaskedMessageEmptiesItAsWell) {
    logged([this] {
        for (int round = 0; round < 3; ++round) {
            logger(kLogDebug, "masked");
            if (truncate(path.c_str(), kLimit) != 0) _exit(2);
            logger(kLogDebug, "masked");
            if (size() != 0) _exit(3);
        }
    });
}

TEST_F(LogFile, TheShellFirstTakesOutAThousandLines) {
    const std::string bin = dir / "bin", calls = dir / "calls";
    std::filesystem::create_directory(bin);
    for (const std::string name : {"/sed", "/mv"}) {
        write_file(bin + name, "#!/bin/sh\necho \"${0##*/} $*\" >> '" + calls + "'\n");
        std::filesystem::permissions(bin + name, std::filesystem::perms::owner_all);
    }
    logged([&] {
        setenv("PATH", (bin + ":/usr/bin:/bin").c_str(), 1);
        if (truncate(path.c_str(), kLimit) != 0) _exit(2);
        logger(kLogInfo, "x");
        if (size() != 0) _exit(3);
    });
    EXPECT_EQ(read_file(calls), "sed 1,1000d " + path + "\nmv " + path + ".tmp " + path + "\n");
}

TEST_F(LogFile, WhatStandsAtTheTemporaryNameIsNeitherFollowedNorWaitedFor) {
    const std::string target = dir / "target", plant = path + ".tmp";
    write_file(target, "precious");
    const std::function<int()> plants[] = {
        [&] { return symlink(target.c_str(), plant.c_str()); },
        [&] { return link(target.c_str(), plant.c_str()); },
        [&] { return mkfifo(plant.c_str(), 0600); },
        [&] { return mkdir(plant.c_str(), 0700); },
    };
    for (const auto &set : plants) {
        logged([&] {
            if (set() != 0 || truncate(path.c_str(), kLimit) != 0) _exit(2);
            logger(kLogInfo, "x");
            if (size() != 0) _exit(3);
        });
        EXPECT_EQ(read_file(target), "precious");
        std::filesystem::remove(plant);
    }
}

TEST_F(LogFile, APathWithShellCharactersIsTrimmedWithoutTheShell) {
    const std::string hostile = dir / "x";
    for (const char *name : {"a b.log", "$(touch x).log", "`touch x`", "a;touch x", "q'q.log"}) {
        path = dir / name;
        logged([&] {
            if (chdir(dir.path().c_str()) != 0 || truncate(path.c_str(), kLimit) != 0) _exit(2);
            logger(kLogInfo, "x");
            if (size() != 0) _exit(3);
        });
        EXPECT_FALSE(std::filesystem::exists(hostile)) << name;
    }
}

TEST_F(LogFile, APathTooLongForTheCommandIsTrimmedWithoutTheShell) {
    path = dir / (std::string(120, 'd') + "/" + std::string(120, 'f'));
    logged([this] {
        if (truncate(path.c_str(), kLimit) != 0) _exit(2);
        logger(kLogInfo, "x");
        if (size() != 0) _exit(3);
    });
}

TEST_F(LogFile, TrimmingWorksWithTheStopSignalsBlocked) {
    logged([this] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        if (truncate(path.c_str(), kLimit) != 0) _exit(2);
        logger(kLogInfo, "x");
        if (size() != 0) _exit(3);
    });
}

TEST_F(LogFile, SeveralThreadsMayReachTheLimitAtOnce) {
    logged([this] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([this] {
                for (int line = 0; line < 50; ++line) {
                    if (line % 10 == 0 && truncate(path.c_str(), kLimit) != 0) _exit(2);
                    logger(kLogInfo, "x");
                }
            });
        }
        for (std::thread &thread : threads) thread.join();
        check_file_size();
        if (size() >= kLimit || fcntl(STDERR_FILENO, F_GETFD) < 0) _exit(3);
    });
}

TEST_F(LogFile, AnUnusablePathLeavesStandardErrorOpen) {
    write_file(dir / "file", "x");
    path = dir / "file/below.log";
    EXPECT_EQ(without_stamps(logged([] { logger(kLogInfo, "still heard"); }).err),
              "(INFO) still heard\n");
    std::filesystem::create_directories(dir / "folder");
    path = dir / "folder";
    EXPECT_EQ(without_stamps(logged([] { logger(kLogInfo, "still heard"); }).err),
              "(INFO) still heard\n");
    EXPECT_TRUE(std::filesystem::is_directory(path));
    path.clear();  // only a missing path is the default one
    EXPECT_EQ(without_stamps(logged([] { logger(kLogInfo, "still heard"); }).err),
              "(INFO) still heard\n");
}

TEST_F(LogFile, AFailedReopenLeavesStandardErrorOpenAndIsMadeUpForLater) {
    logged([this] {
        rlimit usual;
        getrlimit(RLIMIT_NOFILE, &usual);
        const rlimit none = {3, usual.rlim_max};
        if (truncate(path.c_str(), kLimit) != 0) _exit(2);
        setrlimit(RLIMIT_NOFILE, &none);
        logger(kLogInfo, "finds no descriptor");
        const bool open = fcntl(STDERR_FILENO, F_GETFD) >= 0;
        setrlimit(RLIMIT_NOFILE, &usual);
        if (!open) _exit(3);
        if (size() < kLimit) _exit(4);
        logger(kLogInfo, "empties the log");
        logger(kLogInfo, "next");
    });
    EXPECT_EQ(text(), "(INFO) next\n");
}

TEST_F(LogFile, ALinkGivesWayAndItsTargetStays) {
    write_file(dir / "target", "precious");
    path = dir / "link.log";
    ASSERT_EQ(symlink((dir / "target").c_str(), path.c_str()), 0);
    logged([] { logger(kLogInfo, "hello"); });
    EXPECT_EQ(read_file(dir / "target"), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(path));
    EXPECT_EQ(text(), "(INFO) hello\n");
}

// As "/dev/stderr" does while standard error is a plain file; anybody else's link to it would go.
TEST_F(LogFile, ALinkThatNamesAStreamStays) {
    const std::string behind = dir / "behind";
    path = dir / "stream";
    ASSERT_EQ(symlink("/proc/self/fd/2", path.c_str()), 0);
    logged([&] {
        if (!freopen(behind.c_str(), "w", stderr)) _exit(2);
        logger_init(7, wide().c_str(), 1);
        logger(kLogInfo, "hello");
        if (truncate(behind.c_str(), kLimit) != 0) _exit(3);
        logger(kLogInfo, "beyond the limit");
    });
    EXPECT_TRUE(std::filesystem::is_symlink(path));
    EXPECT_EQ(without_stamps(read_file(behind)).substr(0, 13), "(INFO) hello\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
}

TEST_F(LogFile, AFifoIsNeitherDeletedNorWaitedFor) {
    path = dir / "fifo.log";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(without_stamps(logged([] { logger(kLogInfo, "hello"); }).err), "(INFO) hello\n");
    EXPECT_TRUE(std::filesystem::is_fifo(path));
}

TEST_F(LogFile, ADeviceIsWrittenToAndStays) {
    path = "/dev/null";
    EXPECT_EQ(logged([] { logger(kLogInfo, "hello"); }).err, "");
    EXPECT_TRUE(std::filesystem::is_character_file(path));
}

TEST_F(LogFile, AfterTheTeardownNothingIsTrimmed) {
    logged([this] {
        if (truncate(path.c_str(), kLimit) != 0) _exit(2);
        logger_teardown();
        logger(kLogInfo, "late");
        if (size() <= kLimit) _exit(3);
    });
}

TEST(LogConsole, NothingIsEverTrimmed) {
    const temp_dir dir;
    const std::string path = dir / "c.log";
    write_file(path, "");
    ASSERT_EQ(truncate(path.c_str(), kLimit), 0);
    console([&] {
        const std::wstring wide(path.begin(), path.end());
        logger_init(7, wide.c_str(), 0);
        logger(kLogInfo, "x");
        check_file_size();
    });
    EXPECT_EQ(std::filesystem::file_size(path), static_cast<uintmax_t>(kLimit));
}

}  // namespace
