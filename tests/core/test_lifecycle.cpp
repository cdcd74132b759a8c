// The lists of calls in core/lifecycle.cpp, over a registry, a connection and a bridge that only
// say that they were called. Each case is the life of a child process; its standard output is the
// log together with these notes, in the order in which everything happened.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "config/conf.h"
#include "config/plugin.h"
#include "config/siem_config.h"
#include "core/args.h"
#include "core/execution.h"
#include "core/lifecycle.h"
#include "core/restart.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/bookmark.h"
#include "filetail/ruv.h"
#include "lpc_interface/lpc_interface.h"
#include "tests/core/sandbox.h"

namespace {

void note(const std::string &text) {
    printf("%s\n", text.c_str());
    fflush(stdout);
}

// What a case does inside the calls, each only once.
std::function<void()> in_ruv_init, in_init_lpc, in_plugin_config, in_deinit_lpc;

void act(std::function<void()> &action) {
    const std::function<void()> once = std::move(action);
    action = nullptr;
    if (once) once();
}

}  // namespace

// lifecycle.cpp is built against these names: the real lock file belongs to the machine.
void obtain_test_lockfile() {
    note("lock");
}

void release_test_lockfile() {
    note(g_args.conf_file ? "unlock" : "unlock after the arguments were freed");
}

int ruv_init(config *) {
    note("ruv_init");
    act(in_ruv_init);
    return 0;
}

void ruv_teardown(config *c) {
    note(c->bm_dir ? "ruv_teardown" : "ruv_teardown after the configuration was freed");
}

void bookmark_teardown() {
}

int init_lpc(void (*log)(int, const wchar_t *)) {
    note("init_lpc");
    log(4, L"from the bridge");
    act(in_init_lpc);
    return 1;
}

void deinit_lpc() {
    note(conf.bm_dir ? "deinit_lpc before the configuration was freed" : "deinit_lpc");
    act(in_deinit_lpc);
}

void plugin_config(int plugin_start, key_value_pair_spec *kv, config *c) {
    char *level = wstrtostr(c->debug);
    note("plugin_config from " + std::to_string(plugin_start) + " of " + std::to_string(kv->count) +
         " in state " + std::to_string(exec_status()) + " level " + (level ? level : "none"));
    free(level);
    act(in_plugin_config);
}

void plugin_shutdown_all(config *, int signal) {
    note("plugin_shutdown_all " + std::to_string(signal) + " in state " +
         std::to_string(exec_status()));
}

namespace {

constexpr char kArguments[] =
    "(INFO) program arguments\n"
    "(INFO)   * (c) config-file      =@\n"
    "(INFO)   * (d) daemonize        =0\n"
    "(INFO)   * (a) auto-learn       =0\n"
    "(INFO)   * (l) log-level        =3\n"
    "(INFO)     (f) log-file         =0\n"
    "(INFO)     (t) timeout-retry    =5\n"
    "(INFO)     (s) timeout-sleep    =300\n"
    "(INFO)     (r) query-retry      =60\n";

struct Lifecycle : testing::Test {
    temp_dir dir;
    std::string conf_path = dir / "c.conf";

    void SetUp() override {
        in_ruv_init = in_init_lpc = in_plugin_config = in_deinit_lpc = nullptr;
    }
    void write_conf(const std::string &level = "debug_level=info\n",
                    const std::string &bookmarks = "bm/deep") {
        write_file(conf_path,
                   level + "bookmark_dir=" + (dir / bookmarks) + "\ntype=filetail\nft_dir=/x\n");
    }
    std::string arguments() const {
        std::string text = kArguments;
        return text.replace(text.find('@'), 1, conf_path);
    }
    // Lives one life; `meanwhile` runs on a thread of its own once the start-up is through.
    child_result live(
        const std::function<void()> &meanwhile = [] { kill(getpid(), SIGTERM); },
        std::vector<std::string> options = {}) {
        return run_in_child([&] {
            install_signal_handlers();
            options.insert(options.begin(), {"collector", "-c", conf_path});
            std::vector<char *> argv;
            for (std::string &option : options) argv.push_back(option.data());
            argv.push_back(nullptr);
            if (start_collector(static_cast<int>(options.size()), argv.data()) != 0) _exit(100);
            std::thread other([&] {
                const stop_signals_blocked quiet;
                meanwhile();
            });
            wait_for_stop();
            other.join();
            const int status = shut_down_collector();
            fflush(stdout);
            _exit(status);
        });
    }
};

constexpr char kShutdown[] =
    "plugin_shutdown_all 15 in state 2\n"
    "ruv_teardown\n"
    "deinit_lpc\n"
    "unlock\n";

TEST_F(Lifecycle, EverythingIsCalledInItsOrder) {
    write_conf("# a comment is no pair\n\ndebug_level=info\n");
    const child_result life = live();
    EXPECT_EQ(life.status, 15);
    EXPECT_EQ(without_stamps(life.out),
              "lock\n"
              "(INFO) Initalizing Linux Agent\n"
              "ruv_init\n" +
                  arguments() +
                  "init_lpc\n"
                  "plugin_config from 1 of 4 in state 1 level info\n"
                  "(INFO) Shut down intiated\n\n" +
                  kShutdown);
    EXPECT_TRUE(std::filesystem::is_directory(dir / "bm/deep"));
}

TEST_F(Lifecycle, TheStatusIsTheSignalsNumber) {
    write_conf();
    for (const int signum : {1, 2, 3, 15}) {
        const child_result life = live([signum] { kill(getpid(), signum); });
        EXPECT_EQ(life.status, signum);
        EXPECT_THAT(life.out, testing::HasSubstr("plugin_shutdown_all " + std::to_string(signum)));
    }
}

TEST_F(Lifecycle, EachSignalHasItsLineAndTheLastOneIsTheStatus) {
    write_conf();
    in_plugin_config = [] {
        raise(SIGINT);
        raise(SIGTERM);
        raise(SIGHUP);
    };
    const child_result life = live([] {});
    EXPECT_EQ(life.status, 1);
    EXPECT_THAT(without_stamps(life.out),
                testing::HasSubstr("(INFO) Shut down intiated\n\n(INFO) Shut down intiated\n\n"
                                   "(INFO) Shut down intiated\n\nplugin_shutdown_all 1 "));
}

TEST_F(Lifecycle, SignalsThatWereBlockedBeforeTheStartAreHandled) {
    write_conf();
    const stop_signals_blocked inherited;
    EXPECT_EQ(live().status, 15);
}

TEST_F(Lifecycle, ABrokenPipeIsNoReasonToStop) {
    write_conf();
    const child_result life = live([] {
        kill(getpid(), SIGPIPE);
        if (!is_executing()) _exit(99);
        kill(getpid(), SIGTERM);
    });
    EXPECT_EQ(life.status, 15);
}

TEST_F(Lifecycle, AStopFromWithinGivesStatusZero) {
    write_conf();
    const child_result life = live([] { stop_execution(); });
    EXPECT_EQ(life.status, 0);
    EXPECT_THAT(life.out, testing::Not(testing::HasSubstr("Shut down")));
}

TEST_F(Lifecycle, WithoutABookmarkDirectoryNothingIsStarted) {
    write_file(dir / "file", "x");
    write_conf("debug_level=info\n", "file/below");
    const child_result life = live([] {});
    EXPECT_EQ(life.status, 0);
    EXPECT_EQ(without_stamps(life.out),
              "lock\n"
              "(INFO) Initalizing Linux Agent\n"
              "(ERROR) Error: could not create directory for bookmark storage.\n"
              "plugin_shutdown_all 0 in state 2\n"
              "ruv_teardown\n"
              "deinit_lpc\n"
              "unlock\n");
}

TEST_F(Lifecycle, AMissingKeyForTheBookmarkDirectoryIsTheSame) {
    write_file(conf_path, "type=filetail\n");
    EXPECT_EQ(live([] {}).status, 0);
}

TEST_F(Lifecycle, AnUnreadableConfigurationEndsTheStart) {
    const child_result life = live();
    EXPECT_EQ(life.status, 100);
    EXPECT_EQ(life.out, "lock\nError: Failed to open conf file " + conf_path +
                            " with error 2(No such file or directory)\n");
}

TEST_F(Lifecycle, InvalidArgumentsEndItBeforeTheLock) {
    const child_result life = live([] {}, {"-t", "0"});
    EXPECT_EQ(life.status, 1);
    EXPECT_THAT(life.out, testing::StartsWith("timeout-retry value invalid\n\nusage: "));
}

TEST_F(Lifecycle, TheCommandLinesLevelWinsOverTheFiles) {
    const struct {
        const char *line;
        std::vector<std::string> options;
        int mask;  // as the argument log shows it, 0 = the line is not written
    } rows[] = {
        {"debug_level=info\n", {}, 3},
        {"debug_level=diag\n", {}, 31},
        {"debug_level=error\n", {"-l", "warn"}, 7},
        {"debug_level=info\n", {"-l", "warning"}, 3},
        {"debug_level=error\n", {}, 0},
        {"debug_level=nonsense\n", {}, 0},
        {"", {}, 0},
    };
    for (const auto &row : rows) {
        write_conf(row.line);
        const child_result life = live([] { kill(getpid(), SIGTERM); }, row.options);
        const std::string line = "(l) log-level        =" + std::to_string(row.mask) + "\n";
        EXPECT_EQ(life.out.find(line) != std::string::npos, row.mask != 0) << row.line;
    }
}

TEST_F(Lifecycle, WithoutAnyLevelOnlyErrorsAreWritten) {
    write_conf("");
    in_plugin_config = [] {
        logger(kLogError, "an error");
        logger(kLogInfo, "no error");
    };
    const std::string log = without_stamps(live().out);
    EXPECT_THAT(log, testing::HasSubstr("(ERROR) an error\n"));
    EXPECT_THAT(log, testing::Not(testing::HasSubstr("(INFO)")));
}

TEST_F(Lifecycle, TheBridgesMessagesReachTheLog) {
    write_conf("debug_level=debug\n");
    EXPECT_THAT(without_stamps(live().out),
                testing::HasSubstr("init_lpc\n(DEBUG) from the bridge\n"));
}

TEST_F(Lifecycle, ThreadsOfTheBridgeDoNotTakeTheStopSignals) {
    write_conf();
    in_init_lpc = [] {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        for (const int signum : {1, 2, 3, 15}) {
            if (!sigismember(&mask, signum)) note("not blocked: " + std::to_string(signum));
        }
    };
    const child_result life = live();
    EXPECT_EQ(life.status, 15);
    EXPECT_THAT(life.out, testing::Not(testing::HasSubstr("not blocked")));
}

TEST_F(Lifecycle, WrongOptInValuesAreReportedAtTheStart) {
    write_conf("debug_level=warn\nreconnect_wait=soon\n");
    EXPECT_THAT(without_stamps(live().out),
                testing::HasSubstr("(INFO) Initalizing Linux Agent\n(WARN) Warning: value of "
                                   "reconnect_wait is not in effect"));
}

TEST_F(Lifecycle, ARestartReadsTheFileAgainAndKeepsTheProcess) {
    write_conf();
    const child_result life = live([this] {
        write_conf("debug_level=warn\n", "other/bm");
        restart_collector();
        if (exec_status() != 1) _exit(99);
        logger(kLogWarn, "heard");
        kill(getpid(), SIGTERM);
    });
    EXPECT_EQ(life.status, 15);
    EXPECT_THAT(without_stamps(life.out),
                testing::HasSubstr("plugin_config from 1 of 4 in state 1 level info\n"
                                   "plugin_shutdown_all 15 in state 5\n"
                                   "ruv_teardown\n"
                                   "ruv_init\n"
                                   "plugin_config from 1 of 4 in state 5 level warn\n"
                                   "(WARN) heard\n"
                                   "(INFO) Shut down intiated\n"));
    EXPECT_TRUE(std::filesystem::is_directory(dir / "other/bm"));
}

TEST_F(Lifecycle, ARestartIgnoresTheCommandLinesLevel) {
    write_conf("debug_level=error\n");
    const child_result life = live(
        [] {
            restart_collector();
            logger(kLogInfo, "not heard");
            logger(kLogError, "heard");
            kill(getpid(), SIGTERM);
        },
        {"-l", "diag"});
    EXPECT_THAT(life.out, testing::HasSubstr("(ERROR) heard\n"));
    EXPECT_THAT(life.out, testing::Not(testing::HasSubstr("not heard")));
}

TEST_F(Lifecycle, ARestartWithoutAReadableFileLeavesAnEmptyConfiguration) {
    write_conf();
    const child_result life = live([this] {
        std::filesystem::remove(conf_path);
        restart_collector();
        if (exec_status() != 1 || conf.bm_dir || conf.throttle != 0) _exit(99);
        kill(getpid(), SIGTERM);
    });
    EXPECT_EQ(life.status, 15);
    EXPECT_THAT(
        without_stamps(life.out),
        testing::HasSubstr("(ERROR) Error: could not read " + conf_path +
                           "\nruv_init\nplugin_config from 0 of 0 in state 5 level none\n"));
}

TEST_F(Lifecycle, ARestartAskedForDuringTheStartFollowsIt) {
    write_conf();
    in_init_lpc = [] { restart_collector(); };
    const child_result life = live();
    EXPECT_EQ(life.status, 15);
    EXPECT_THAT(without_stamps(life.out),
                testing::HasSubstr("init_lpc\n"
                                   "plugin_config from 1 of 4 in state 1 level info\n"
                                   "plugin_shutdown_all 15 in state 5\n"
                                   "ruv_teardown\n"
                                   "ruv_init\n"
                                   "plugin_config from 1 of 4 in state 5 level info\n"
                                   "(INFO) Shut down intiated\n"));
}

TEST_F(Lifecycle, AStopDuringTheStartLeadsStraightToTheShutdown) {
    write_conf();
    in_ruv_init = [] { raise(SIGTERM); };
    const child_result life = live([] {});
    EXPECT_EQ(life.status, 15);
    EXPECT_THAT(without_stamps(life.out),
                testing::EndsWith("in state 2 level info\n(INFO) Shut down "
                                  "intiated\n\n" +
                                  std::string(kShutdown)));
}

TEST_F(Lifecycle, ARestartDuringTheShutdownDoesNothing) {
    write_conf();
    in_deinit_lpc = [] {
        // From the thread that the shutdown waits for, as an agent's call would be.
        std::thread([] { restart_collector(); }).join();
    };
    const child_result life = live();
    EXPECT_EQ(life.status, 15);
    EXPECT_THAT(without_stamps(life.out), testing::EndsWith(kShutdown));
}

TEST_F(Lifecycle, ARestartAfterAStopDoesNothing) {
    write_conf();
    const child_result life = live([] {
        stop_execution();
        restart_collector();
    });
    EXPECT_EQ(life.status, 0);
    EXPECT_THAT(life.out, testing::Not(testing::HasSubstr("in state 5")));
}

TEST_F(Lifecycle, AStopDuringARestartIsKept) {
    write_conf();
    const child_result life = live([] {
        in_plugin_config = [] { kill(getpid(), SIGQUIT); };
        restart_collector();
        if (is_running()) eventually([] { return !is_running(); });
    });
    EXPECT_EQ(life.status, 3);
}

TEST_F(Lifecycle, RestartsFromSeveralThreadsRunOneAfterAnother) {
    write_conf();
    const child_result life = live([] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) threads.emplace_back(restart_collector);
        for (std::thread &thread : threads) thread.join();
        if (exec_status() != 1) _exit(99);
        kill(getpid(), SIGTERM);
    });
    EXPECT_EQ(life.status, 15);
    const std::string once =
        "plugin_shutdown_all 15 in state 5\nruv_teardown\nruv_init\n"
        "plugin_config from 1 of 4 in state 5 level info\n";
    std::string all;
    for (int i = 0; i < 8; ++i) all += once;
    EXPECT_THAT(life.out, testing::HasSubstr(all));
}

TEST(StandardStreams, ClosedOnesAreTakenByTheNullDevice) {
    const child_result child = run_in_child([] {
        for (int fd = 0; fd <= 2; ++fd) close(fd);
        occupy_standard_streams();
        struct stat null, own;
        stat("/dev/null", &null);
        for (int fd = 0; fd <= 2; ++fd) {
            if (fstat(fd, &own) != 0 || own.st_rdev != null.st_rdev) _exit(1);
        }
        _exit(open("/dev/null", O_RDONLY) > 2 ? 0 : 2);
    });
    EXPECT_EQ(child.status, 0);
}

TEST(StandardStreams, OpenOnesAreLeftAlone) {
    const child_result child = run_in_child([] {
        occupy_standard_streams();
        note("still here");
    });
    EXPECT_EQ(child.out, "still here\n");
}

TEST(Detaching, ByHandMakesASessionInTheRoot) {
    const temp_dir dir;
    const std::string result = dir / "result";
    const child_result parent = run_in_child([&] {
        daemonize_me();
        const mode_t mask = umask(0);
        const bool right = getsid(0) == getpid() && mask == 0 && fcntl(0, F_GETFD) < 0 &&
                           fcntl(1, F_GETFD) >= 0 && fcntl(2, F_GETFD) >= 0 &&
                           std::filesystem::current_path() == "/";
        write_file(result + ".new", right ? "right" : "wrong");
        std::filesystem::rename(result + ".new", result);
    });
    EXPECT_EQ(parent.status, 0);
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(result); }));
    EXPECT_EQ(read_file(result), "right");
}

}  // namespace
