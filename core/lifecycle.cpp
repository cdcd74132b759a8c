#include "core/lifecycle.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <mutex>

#include "config/conf.h"
#include "config/plugin.h"
#include "config/siem_config.h"
#include "core/args.h"
#include "core/execution.h"
#include "core/restart.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/bookmark.h"
#include "filetail/ruv.h"
#include "lpc_interface/lpc_interface.h"

std::atomic<int32_t> process_sig{0};

namespace {

constexpr int kStopSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
constexpr int kWaitStepMilliseconds = 1000;

std::atomic<int> unreported_signals{0};

enum class phase { starting, running, ending };

// Held for a whole restart and for each change of the phase. Start-up and shutdown do their work
// without it: a restart asked for meanwhile does not wait for them but looks at the phase, since
// shutdown waits for the very thread that may be asking.
std::mutex lifecycle_lock;
phase current_phase = phase::starting;
bool restart_postponed = false;

int read_configuration(key_value_pair_spec **pairs, int *plugin_start) {
    const int result = conf_parse_key_value_pair(g_args.conf_file, pairs, 0);
    *plugin_start = config_init(*pairs, &conf);
    return result;
}

int detach() {
    if (args_anchor_conf_file() == 0 && daemon(0, 0) == 0) return 0;
    fprintf(stderr, "Failed to detach: %s\n", strerror(errno));
    return -1;
}

// The command line wins; the configuration's level is copied to where the argument log looks.
uint64_t start_log_mask() {
    if (g_args.log_level != 0) return static_cast<uint64_t>(g_args.log_level);
    if (!conf.debug) return kLogError;
    g_args.log_level = static_cast<int32_t>(translate_level(conf.debug));
    return static_cast<uint64_t>(g_args.log_level);
}

// Its result is not looked at: without an agent the daemon runs unmanaged. Threads of the agent's
// runtime inherit the mask.
void start_bridge() {
    const stop_signals_blocked quiet;
    init_lpc(lpc_log);
}

void start_services(key_value_pair_spec *pairs, int plugin_start) {
    ruv_init(&conf);
    args_log_program_args();
    start_bridge();
    plugin_config(plugin_start, pairs, &conf);
}

void restart_now() {
    pause_execution();
    plugin_shutdown_all(&conf, SIGTERM);
    ruv_teardown(&conf);
    config_teardown(&conf);
    key_value_pair_spec *pairs = nullptr;
    int plugin_start = 0;
    const int unreadable = read_configuration(&pairs, &plugin_start);
    set_log_level(conf.debug ? translate_level(conf.debug) : uint64_t{kLogError});
    if (unreadable) logger(kLogError, "Error: could not read %s", g_args.conf_file);
    config_check(pairs, &conf);
    if (conf.bm_dir && create_dir(conf.bm_dir) != 0) {
        logger(kLogError, "Error: could not create directory for bookmark storage.");
    }
    ruv_init(&conf);
    plugin_config(plugin_start, pairs, &conf);
    resume_execution();
    conf_teardown_key_value_pair(pairs);
}

void finish_start() {
    std::lock_guard<std::mutex> guard(lifecycle_lock);
    current_phase = phase::running;
    if (restart_postponed && is_running()) restart_now();
    restart_postponed = false;
}

void report_signals() {
    // Kept: the spelling, and the line feed in front of the logger's own; monitors look for it.
    for (int left = unreported_signals.exchange(0); left > 0; --left) {
        logger(kLogInfo, "Shut down intiated\n");
    }
}

}  // namespace

void signal_handler(int signum) {
    process_sig.store(signum);
    unreported_signals.fetch_add(1);
    stop_execution();
}

void occupy_standard_streams() {
    pollfd streams[] = {{STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}};
    // One call tells them all. It is also the first that may block, made before any signal counts:
    // the thread sanitizer loses a signal that arrives while it prepares a thread's first one.
    if (poll(streams, std::size(streams), 0) < 0) return;
    for (const pollfd &stream : streams) {
        // The lowest free descriptor is the one that was found closed.
        if ((stream.revents & POLLNVAL) && open("/dev/null", O_RDWR) < 0) return;
    }
}

void install_signal_handlers() {
    struct sigaction action = {};
    action.sa_handler = signal_handler;
    sigemptyset(&action.sa_mask);
    sigset_t stopping;
    sigemptyset(&stopping);
    for (const int signum : kStopSignals) {
        sigaction(signum, &action, nullptr);
        sigaddset(&stopping, signum);
    }
    signal(SIGPIPE, SIG_IGN);
    sigprocmask(SIG_UNBLOCK, &stopping, nullptr);  // whoever started us may have blocked them
}

int start_collector(int argc, char **argv) {
    args_parse(argc, argv);
    obtain_lockfile();
    key_value_pair_spec *pairs = nullptr;
    int plugin_start = 0;
    if (read_configuration(&pairs, &plugin_start) != 0 || (g_args.daemon && detach() != 0)) {
        conf_teardown_key_value_pair(pairs);
        return 1;
    }
    logger_init(start_log_mask(), conf.log, g_args.log_file);
    logger(kLogInfo, "Initalizing Linux Agent");  // Kept: the spelling; monitors look for the line.
    config_check(pairs, &conf);
    if (create_dir(conf.bm_dir) != 0) {
        logger(kLogError, "Error: could not create directory for bookmark storage.");
        stop_execution();
    } else {
        start_services(pairs, plugin_start);
    }
    conf_teardown_key_value_pair(pairs);
    finish_start();
    return 0;
}

void wait_for_stop() {
    while (is_running()) wait_while_running(kWaitStepMilliseconds);
}

int shut_down_collector() {
    {
        std::lock_guard<std::mutex> guard(lifecycle_lock);  // a restart under way ends first
        current_phase = phase::ending;
    }
    report_signals();
    plugin_shutdown_all(&conf, process_sig.load());
    bookmark_teardown();
    ruv_teardown(&conf);
    config_teardown(&conf);
    deinit_lpc();
    release_lockfile();
    args_teardown();
    report_signals();
    logger_teardown();
    return process_sig.load();
}

void restart_collector() {
    std::lock_guard<std::mutex> guard(lifecycle_lock);
    if (current_phase == phase::starting) {
        restart_postponed = true;
    } else if (current_phase == phase::running && is_running()) {
        restart_now();
    }
}

void daemonize_me() {
    const pid_t child = fork();
    if (child < 0) exit(1);
    if (child > 0) exit(0);
    umask(0);
    if (setsid() < 0) exit(1);
    if (chdir("/") < 0) exit(1);
    close(STDIN_FILENO);
}
