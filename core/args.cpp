#include "core/args.h"

#include <getopt.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/siemcollector_log.h"
#include "core/utils.h"

program_args g_args;

namespace {

constexpr int32_t kTimeoutRetry = 5;
constexpr int32_t kTimeoutSleepSeconds = 300;
constexpr int32_t kQueryRetrySeconds = 60;
constexpr size_t kMessageBytes = 64;

// The path as it was given, for the log; null when conf_file still is that path.
char *given_conf_file;

char default_conf_file[] = "/opt/Velmor/siem/velmor_siem_collector.conf";

constexpr char kShortOptions[] = "hc:dal:ft:s:r:";

// Kept: there is no long form of -f, although the usage text names one; scripts rely on its
// refusal.
constexpr option kLongOptions[] = {
    {"help", no_argument, nullptr, 'h'},
    {"conf-file", required_argument, nullptr, 'c'},
    {"daemonize", no_argument, nullptr, 'd'},
    {"auto-learn", no_argument, nullptr, 'a'},
    {"log-level", required_argument, nullptr, 'l'},
    {"timeout-retry", required_argument, nullptr, 't'},
    {"timeout-sleep", required_argument, nullptr, 's'},
    {"query-retry", required_argument, nullptr, 'r'},
    {nullptr, 0, nullptr, 0},
};

// Kept: "ozu", "dameonize", "log-file", "warning" and the blanks at the ends of lines; operators'
// scripts compare this text.
constexpr char kUsage[] =
    "usage: ozu [options]\n"
    "\n"
    "   h help                this message\n"
    "\n"
    "   ---------------------------- options ----------------------------------------------------\n"
    "   option                description                                                 default\n"
    "   ------------------------- alternate execution -------------------------------------------\n"
    "   c conf-file           configuration file the siemcollector will use               %s\n"
    "   l log-level           optional - level of logging. (error,info,warning,debug)            \n"
    "   f log-file            optional - log to file, normally used from init script             \n"
    "   d daemonize           optional - runs the agent as a daemon.                             \n"
    "   a auto-learn          optional - enables auto learning on the client.                    \n"
    "\n"
    "        *log-level and dameonize can be alternatively set in the conf file                  \n"
    "   ---------------------------- general options --------------------------------------------\n"
    "   t timeout-retry       number of times to retry a connection before timeout        %d\n"
    "   s timeout-sleep       number of seconds before retrying a timed-out connection    %d\n"
    "   r query-retry         number of seconds before requerying after no data           %d\n"
    "   ---------------------------- logging options "
    "--------------------------------------------\n";

struct number_line {
    const char *format;
    char letter;
    int32_t program_args::*field;
    int32_t unmarked;  // the value that is shown without a mark
};

// Kept: the first three are compared with 1 although their default is 0, so they carry the mark
// when they were left alone.
constexpr number_line kNumberLines[] = {
    {"  %s (%c) daemonize        =%d", 'd', &program_args::daemon, 1},
    {"  %s (%c) auto-learn       =%d", 'a', &program_args::autolearn, 1},
    {"  %s (%c) log-level        =%d", 'l', &program_args::log_level, 1},
    {"  %s (%c) log-file         =%d", 'f', &program_args::log_file, 0},
    {"  %s (%c) timeout-retry    =%d", 't', &program_args::timeout_retry, kTimeoutRetry},
    {"  %s (%c) timeout-sleep    =%d", 's', &program_args::timeout_sleep, kTimeoutSleepSeconds},
    {"  %s (%c) query-retry      =%d", 'r', &program_args::query_retry, kQueryRetrySeconds},
};

int32_t positive_number(const char *text, const char *complaint) {
    const long value = strtol(text, nullptr, 10);
    if (value <= 0) usage(complaint);
    return value > INT32_MAX ? INT32_MAX : static_cast<int32_t>(value);
}

int32_t level_mask(const char *word) {
    wchar_t *wide = strtowstr(word, static_cast<int>(strlen(word)));
    const auto mask = static_cast<int32_t>(translate_level(wide));
    free(wide);
    return mask;
}

void store_conf_file(char *path) {
    if (g_args.conf_file != default_conf_file) free(g_args.conf_file);
    g_args.conf_file = path ? path : default_conf_file;
}

void apply_option(int letter, const char *value) {
    switch (letter) {
        case 'h':
            usage(nullptr);
        case 'c':
            store_conf_file(strdup(value));
            break;
        case 'd':
            g_args.daemon = 1;
            break;
        case 'a':
            g_args.autolearn = 1;
            break;
        case 'l':
            g_args.log_level = level_mask(value);
            break;
        case 'f':
            g_args.log_file = 1;
            break;
        case 't':
            g_args.timeout_retry = positive_number(value, "timeout-retry value invalid");
            break;
        case 's':
            g_args.timeout_sleep = positive_number(value, "timeout-sleep value invalid");
            break;
        case 'r':
            g_args.query_retry = positive_number(value, "query-retry value invalid");
            break;
        default: {
            char message[kMessageBytes];
            snprintf(message, sizeof message, "Unrecognized argument: %c", letter);
            usage(message);
        }
    }
}

}  // namespace

void args_parse(int argc, char **argv) {
    args_teardown();
    g_args = {};
    g_args.timeout_retry = kTimeoutRetry;
    g_args.timeout_sleep = kTimeoutSleepSeconds;
    g_args.query_retry = kQueryRetrySeconds;
    g_args.conf_file = default_conf_file;
    optind = 0;  // begin anew, should this not be the first parse
    int letter;
    while ((letter = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1) {
        apply_option(letter, optarg);
    }
}

void usage(const char *msg) {
    if (msg) printf("%s\n\n", msg);
    printf(kUsage, kDefaultConfFile, kTimeoutRetry, kTimeoutSleepSeconds, kQueryRetrySeconds);
    exit(1);
}

int args_anchor_conf_file() {
    if (!g_args.conf_file || g_args.conf_file[0] == '/') return 0;
    char folder[PATH_MAX];
    char *absolute = nullptr;
    if (!getcwd(folder, sizeof folder)) return -1;
    if (asprintf(&absolute, "%s/%s", folder, g_args.conf_file) < 0) return -1;
    free(given_conf_file);
    given_conf_file = g_args.conf_file;
    g_args.conf_file = absolute;
    return 0;
}

void args_log_program_args() {
    const char *path = given_conf_file ? given_conf_file : g_args.conf_file;
    if (!path) path = "";
    logger(kLogInfo, "program arguments");
    logger(kLogInfo, "  %s (%c) config-file      =%s",
           strcmp(path, kDefaultConfFile) == 0 ? " " : "*", 'c', path);
    for (const number_line &line : kNumberLines) {
        const int32_t value = g_args.*line.field;
        logger(kLogInfo, line.format, value == line.unmarked ? " " : "*", line.letter, value);
    }
}

void args_teardown() {
    if (g_args.conf_file != default_conf_file) free(g_args.conf_file);
    g_args.conf_file = nullptr;
    free(given_conf_file);
    given_conf_file = nullptr;
}
