// siem_collector_status: what is behind, on one screen or for machines.

#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/host/lock_holder.h"
#include "tools/status/present.h"

namespace {

constexpr char kUsageText[] =
    "usage: siem_collector_status [options]\n"
    "\n"
    "Shows how far every tailed file was sent and whether the collector runs. Reads only.\n"
    "\n"
    "  -c, --conf-file FILE   configuration of the collector (default\n"
    "                         /etc/velmor/siem_collector.conf, or else\n"
    "                         /opt/Velmor/siem/velmor_siem_collector.conf)\n"
    "      --watch [SECONDS]  show it again every SECONDS (default 2) until interrupted\n"
    "      --json             print JSON\n"
    "      --prom FILE        write a Prometheus textfile in one atomic step\n"
    "      --verify           look for damaged and double bookmark records\n"
    "      --warn BYTES       lag that is a warning (default 10000000)\n"
    "      --crit BYTES       lag that is critical (default 1000000000)\n"
    "  -h, --help             show this text\n"
    "      --version          show the version\n"
    "\n"
    "exit status: 0 fine, 1 warning, 2 critical (down, damaged, far behind), 3 unknown or usage\n";

enum option_code { kWatch = 256, kJson, kProm, kVerify, kWarn, kCrit, kVersion };

const option kOptions[] = {
    {"conf-file", required_argument, nullptr, 'c'}, {"watch", optional_argument, nullptr, kWatch},
    {"json", no_argument, nullptr, kJson},          {"prom", required_argument, nullptr, kProm},
    {"verify", no_argument, nullptr, kVerify},      {"warn", required_argument, nullptr, kWarn},
    {"crit", required_argument, nullptr, kCrit},    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, kVersion},    {nullptr, 0, nullptr, 0}};

struct settings {
    std::string config;
    std::string prom;
    bool json = false;
    bool verify = false;
    unsigned watch = 0;
    lag_limits limits{10'000'000, 1'000'000'000};
};

// A number of bytes or seconds from the command line; ends with a message when it is none.
unsigned long number_argument(const char *option_name, const char *text) {
    char *end = nullptr;
    errno = 0;
    const unsigned long value = strtoul(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || text[0] == '-') {
        fprintf(stderr, "siem_collector_status: --%s takes a number, not \"%s\"\n", option_name,
                text);
        exit(kUnknown);
    }
    return value;
}

void take_options(int argc, char **argv, settings *wanted) {
    int code;
    while ((code = getopt_long(argc, argv, "c:h", kOptions, nullptr)) != -1) {
        switch (code) {
            case 'c':
                wanted->config = optarg;
                break;
            case kWatch:
                // The number may follow as a word of its own.
                if (optarg == nullptr && optind < argc && argv[optind][0] != '-') {
                    optarg = argv[optind++];
                }
                wanted->watch =
                    optarg == nullptr ? 2 : static_cast<unsigned>(number_argument("watch", optarg));
                if (wanted->watch == 0) wanted->watch = 1;
                break;
            case kJson:
                wanted->json = true;
                break;
            case kProm:
                wanted->prom = optarg;
                break;
            case kVerify:
                wanted->verify = true;
                break;
            case kWarn:
                wanted->limits.warning = number_argument("warn", optarg);
                break;
            case kCrit:
                wanted->limits.critical = number_argument("crit", optarg);
                break;
            case 'h':
                fputs(kUsageText, stdout);
                exit(0);
            case kVersion:
                puts("siem_collector_status " COLLECTOR_VERSION);
                exit(0);
            default:
                fputs(kUsageText, stderr);
                exit(kUnknown);
        }
    }
    if (optind < argc) {
        fprintf(stderr, "siem_collector_status: unexpected word \"%s\"\n\n%s", argv[optind],
                kUsageText);
        exit(kUnknown);
    }
    if (!wanted->config.empty()) return;
    wanted->config = "/etc/velmor/siem_collector.conf";
    if (access(wanted->config.c_str(), F_OK) != 0) {
        wanted->config = "/opt/Velmor/siem/velmor_siem_collector.conf";
    }
}

// A reader of the old file keeps it whole; a reader that comes later finds the new one whole.
bool write_atomically(const std::string &path, const std::string &bytes) {
    const std::string fresh = path + "." + std::to_string(getpid()) + ".tmp";
    FILE *file = fopen(fresh.c_str(), "wxe");
    if (file == nullptr) return false;
    bool written = fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    written = fflush(file) == 0 && written;
    written = fclose(file) == 0 && written;
    if (written && rename(fresh.c_str(), path.c_str()) == 0) return true;
    const int error = errno;
    unlink(fresh.c_str());
    errno = error;
    return false;
}

int show(const settings &wanted, const survey &taken) {
    if (!wanted.prom.empty()) {
        if (!write_atomically(wanted.prom, present_prometheus(taken))) {
            fprintf(stderr, "siem_collector_status: %s: %s\n", wanted.prom.c_str(),
                    strerror(errno));
            return kUnknown;
        }
    } else if (wanted.verify) {
        fputs(present_verification(taken).c_str(), stdout);
        if (!taken.error.empty() || !taken.bookmarks.readable) return kUnknown;
        return taken.bookmarks.problems.empty() ? kFine : kCritical;
    } else if (wanted.json) {
        fputs(present_json(taken, wanted.limits).c_str(), stdout);
    } else {
        fputs(present_screen(taken, wanted.limits).c_str(), stdout);
    }
    return judge(taken, wanted.limits);
}

}  // namespace

int main(int argc, char **argv) {
    setlocale(LC_CTYPE, "");
    settings wanted;
    take_options(argc, argv, &wanted);
    const survey_request request{wanted.config, kCollectorLockPath, "/proc/locks"};
    if (wanted.watch == 0) return show(wanted, take_survey(request));
    for (;;) {
        const survey taken = take_survey(request);
        if (isatty(STDOUT_FILENO) && !wanted.json) fputs("\033[H\033[2J", stdout);
        show(wanted, taken);
        if (fflush(stdout) != 0) return kUnknown;
        sleep(wanted.watch);
    }
}
