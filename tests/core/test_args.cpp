#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/args.h"
#include "core/siemcollector_log.h"
#include "tests/core/sandbox.h"

namespace {

constexpr char kDefaultPath[] = "/opt/Velmor/siem/velmor_siem_collector.conf";

void parse(std::vector<std::string> words) {
    words.insert(words.begin(), "velmor_siem_collector");
    std::vector<char *> argv;
    for (std::string &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    args_parse(static_cast<int>(words.size()), argv.data());
}

std::string blanks(const std::string &text) {
    std::string padded = text;
    padded.resize(92, ' ');
    return padded + "\n";
}

// The text as operators' scripts know it; most lines of the second block are padded to 92 columns.
std::string usage_text() {
    const std::string rule(51, '-');
    return "usage: ozu [options]\n"
           "\n"
           "   h help                this message\n"
           "\n"
           "   ---------------------------- options " +
           rule +
           "-\n"
           "   option                description" +
           std::string(49, ' ') +
           "default\n"
           "   ------------------------- alternate execution " +
           std::string(43, '-') +
           "\n   c conf-file           configuration file the siemcollector "
           "will use               " +
           kDefaultPath + "\n" +
           blanks(
               "   l log-level           optional - level of logging. "
               "(error,info,warning,debug)") +
           blanks(
               "   f log-file            optional - log to file, normally used from init "
               "script") +
           blanks("   d daemonize           optional - runs the agent as a daemon.") +
           blanks("   a auto-learn          optional - enables auto learning on the client.") +
           "\n" +
           blanks("        *log-level and dameonize can be alternatively set in the conf file") +
           "   ---------------------------- general options " + std::string(44, '-') +
           "\n"
           "   t timeout-retry       number of times to retry a connection before timeout        "
           "5\n"
           "   s timeout-sleep       number of seconds before retrying a timed-out connection    "
           "300\n"
           "   r query-retry         number of seconds before requerying after no data           "
           "60\n"
           "   ---------------------------- logging options " +
           std::string(44, '-') + "\n";
}

struct Args : testing::Test {
    void TearDown() override { args_teardown(); }
};

void expect_usage(const std::vector<std::string> &words, const std::string &message,
                  const std::string &complaint = "") {
    const child_result child = run_in_child([&] { parse(words); });
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.out, message + usage_text());
    if (complaint.empty()) {
        EXPECT_EQ(child.err, "");
    } else {
        EXPECT_THAT(child.err, testing::HasSubstr(complaint));
    }
}

TEST_F(Args, Defaults) {
    parse({});
    EXPECT_EQ(g_args.timeout_retry, 5);
    EXPECT_EQ(g_args.timeout_sleep, 300);
    EXPECT_EQ(g_args.query_retry, 60);
    EXPECT_EQ(g_args.log_level, 0);
    EXPECT_EQ(g_args.log_file, 0);
    EXPECT_EQ(g_args.daemon, 0);
    EXPECT_EQ(g_args.autolearn, 0);
    EXPECT_STREQ(g_args.conf_file, kDefaultPath);
}

TEST_F(Args, ShortOptions) {
    parse({"-c", "/x.conf", "-d", "-a", "-l", "debug", "-f", "-t", "3", "-s", "10", "-r", "7"});
    EXPECT_STREQ(g_args.conf_file, "/x.conf");
    EXPECT_EQ(g_args.daemon, 1);
    EXPECT_EQ(g_args.autolearn, 1);
    EXPECT_EQ(g_args.log_level, 15);
    EXPECT_EQ(g_args.log_file, 1);
    EXPECT_EQ(g_args.timeout_retry, 3);
    EXPECT_EQ(g_args.timeout_sleep, 10);
    EXPECT_EQ(g_args.query_retry, 7);
}

TEST_F(Args, LongOptions) {
    parse({"--conf-file=/y.conf", "--daemonize", "--auto-learn", "--log-level", "INFO",
           "--timeout-retry=8", "--timeout-sleep=9", "--query-retry=11"});
    EXPECT_STREQ(g_args.conf_file, "/y.conf");
    EXPECT_EQ(g_args.daemon, 1);
    EXPECT_EQ(g_args.autolearn, 1);
    EXPECT_EQ(g_args.log_level, 3);
    EXPECT_EQ(g_args.log_file, 0);
    EXPECT_EQ(g_args.timeout_retry, 8);
    EXPECT_EQ(g_args.timeout_sleep, 9);
    EXPECT_EQ(g_args.query_retry, 11);
}

TEST_F(Args, LevelWords) {
    const struct {
        const char *word;
        int mask;
    } rows[] = {{"error", 1}, {"ERROR", 1}, {"info", 3},    {"warn", 7}, {"DEBUG", 15},
                {"diag", 31}, {"DIAG", 31}, {"warning", 0}, {"Info", 0}, {"", 0}};
    for (const auto &row : rows) {
        parse({"-l", row.word});
        EXPECT_EQ(g_args.log_level, row.mask) << row.word;
    }
}

TEST_F(Args, LaterOptionsWinAndOtherWordsAreIgnored) {
    parse({"-c", "/first", "word", "-t", "1", "-c", "/second", "-t", "2", "more"});
    EXPECT_STREQ(g_args.conf_file, "/second");
    EXPECT_EQ(g_args.timeout_retry, 2);
}

TEST_F(Args, TextBehindANumberIsIgnored) {
    parse({"-t", "12abc"});
    EXPECT_EQ(g_args.timeout_retry, 12);
    parse({"-t", "010"});
    EXPECT_EQ(g_args.timeout_retry, 10);
    parse({"-t", "99999999999"});
    EXPECT_EQ(g_args.timeout_retry, INT32_MAX);
}

TEST_F(Args, HelpPrintsTheUsageAlone) {
    expect_usage({"-h"}, "");
    expect_usage({"--help"}, "");
}

TEST_F(Args, TheUsageShowsTheDefaultsAndNotWhatWasParsed) {
    expect_usage({"-t", "9", "-s", "8", "-r", "7", "-c", "/other", "-h"}, "");
}

TEST_F(Args, InvalidNumbers) {
    for (const char *number : {"0", "-5", "abc", "", "0x10"}) {
        expect_usage({"-t", number}, "timeout-retry value invalid\n\n");
        expect_usage({"-s", number}, "timeout-sleep value invalid\n\n");
        expect_usage({"-r", number}, "query-retry value invalid\n\n");
    }
}

TEST_F(Args, UnknownOptionsAndMissingArguments) {
    expect_usage({"-x"}, "Unrecognized argument: ?\n\n", "invalid option");
    expect_usage({"--nothing"}, "Unrecognized argument: ?\n\n", "unrecognized option");
    expect_usage({"-c"}, "Unrecognized argument: ?\n\n", "requires an argument");
}

TEST_F(Args, ThereIsNoLongFormOfTheLogFileOption) {
    expect_usage({"--log-file"}, "Unrecognized argument: ?\n\n", "unrecognized option");
}

// The log lines of args_log_program_args() without stamps.
std::string argument_log(const std::vector<std::string> &words, const std::string &folder = "/") {
    const child_result child = run_in_child([&] {
        if (chdir(folder.c_str()) != 0) _exit(2);
        parse(words);
        if (args_anchor_conf_file() != 0) _exit(3);
        if (g_args.conf_file[0] != '/') _exit(4);
        logger_init(3, nullptr, 0);
        args_log_program_args();
    });
    EXPECT_EQ(child.status, 0);
    return without_stamps(child.out);
}

TEST_F(Args, TheLogMarksWhatIsNotUsual) {
    EXPECT_EQ(argument_log({}), std::string("(INFO) program arguments\n"
                                            "(INFO)     (c) config-file      =") +
                                    kDefaultPath +
                                    "\n"
                                    "(INFO)   * (d) daemonize        =0\n"
                                    "(INFO)   * (a) auto-learn       =0\n"
                                    "(INFO)   * (l) log-level        =0\n"
                                    "(INFO)     (f) log-file         =0\n"
                                    "(INFO)     (t) timeout-retry    =5\n"
                                    "(INFO)     (s) timeout-sleep    =300\n"
                                    "(INFO)     (r) query-retry      =60\n");
    EXPECT_EQ(argument_log(
                  {"-c", "/c", "-d", "-a", "-l", "error", "-f", "-t", "1", "-s", "1", "-r", "1"}),
              "(INFO) program arguments\n"
              "(INFO)   * (c) config-file      =/c\n"
              "(INFO)     (d) daemonize        =1\n"
              "(INFO)     (a) auto-learn       =1\n"
              "(INFO)     (l) log-level        =1\n"
              "(INFO)   * (f) log-file         =1\n"
              "(INFO)   * (t) timeout-retry    =1\n"
              "(INFO)   * (s) timeout-sleep    =1\n"
              "(INFO)   * (r) query-retry      =1\n");
}

TEST_F(Args, ARelativePathIsAnchoredAndLoggedAsGiven) {
    const temp_dir dir;
    EXPECT_THAT(argument_log({"-c", "etc/own.conf"}, dir.path()),
                testing::HasSubstr("* (c) config-file      =etc/own.conf\n"));
    const child_result child = run_in_child([&] {
        if (chdir(dir.path().c_str()) != 0) _exit(2);
        parse({"-c", "own.conf"});
        args_anchor_conf_file();
        _exit(g_args.conf_file == std::filesystem::current_path().string() + "/own.conf" ? 0 : 1);
    });
    EXPECT_EQ(child.status, 0);
}

TEST_F(Args, TeardownFreesOnceAndOnlyWhatWasMade) {
    parse({});
    args_teardown();
    parse({"-c", "/own"});
    args_teardown();
    args_teardown();
    EXPECT_EQ(g_args.conf_file, nullptr);
}

}  // namespace
