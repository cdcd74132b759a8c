// siem_collector_check: finds the traps of a configuration file before the daemon meets them.

#include <getopt.h>

#include <clocale>
#include <cstdio>
#include <string>

#include "tools/check/effective.h"
#include "tools/check/report.h"
#include "tools/check/rules.h"

namespace {

constexpr int kUsage = 64;
constexpr int kUnreadable = 66;
constexpr int kErrorsFound = 78;

constexpr char kUsageText[] =
    "usage: siem_collector_check [options] FILE...\n"
    "\n"
    "Reports every line of a collector configuration that the daemon reads otherwise than its\n"
    "writer is likely to have meant, and how to mend it.\n"
    "\n"
    "      --json             print findings as JSON\n"
    "      --deny-warnings    end with status 78 also for warnings\n"
    "      --no-host          look at the text only, not at this host's files\n"
    "      --logrotate DIR    look for rotation rules in DIR (default /etc/logrotate.d)\n"
    "      --effective        show the configuration as the daemon reads it\n"
    "      --live             resolve, connect, probe, and check directories and the lock\n"
    "      --explain ID       explain one trap, such as T05, or \"all\"\n"
    "      --init             write a commented example to standard output\n"
    "  -h, --help             show this text\n"
    "      --version          show the version\n"
    "\n"
    "exit status: 0 clean, 64 usage, 66 unreadable file, 78 errors\n";

enum option_code {
    kJson = 256,
    kDeny,
    kNoHost,
    kLogrotate,
    kEffective,
    kLive,
    kExplain,
    kInit,
    kVersion
};

const option kOptions[] = {{"json", no_argument, nullptr, kJson},
                           {"deny-warnings", no_argument, nullptr, kDeny},
                           {"no-host", no_argument, nullptr, kNoHost},
                           {"logrotate", required_argument, nullptr, kLogrotate},
                           {"effective", no_argument, nullptr, kEffective},
                           {"live", no_argument, nullptr, kLive},
                           {"explain", required_argument, nullptr, kExplain},
                           {"init", no_argument, nullptr, kInit},
                           {"help", no_argument, nullptr, 'h'},
                           {"version", no_argument, nullptr, kVersion},
                           {nullptr, 0, nullptr, 0}};

struct settings {
    bool json = false;
    bool deny_warnings = false;
    bool host = true;
    bool effective = false;
    bool live = false;
    std::string logrotate = "/etc/logrotate.d";
};

int explain(const std::string &id) {
    if (id == "all") {
        for (const trap &t : all_traps()) printf("%s\n", format_trap(t).c_str());
        return 0;
    }
    const trap *found = find_trap(id);
    if (found == nullptr) {
        fprintf(stderr, "siem_collector_check: no trap %s; \"--explain all\" lists them\n",
                id.c_str());
        return kUsage;
    }
    fputs(format_trap(*found).c_str(), stdout);
    return 0;
}

int check_file(const std::string &path, const settings &wanted) {
    config_text text;
    std::string reason;
    if (!config_text_read(path, &text, &reason)) {
        fprintf(stderr, "siem_collector_check: %s: %s\n", path.c_str(), reason.c_str());
        return kUnreadable;
    }
    report found{path, {}, {}};
    check_format(text, &found);
    found.explain_lines();
    check_globals(text, &found);
    check_sections(text, &found);
    if (wanted.host) check_host(text, wanted.logrotate, &found);
    sort_findings(&found);
    fputs((wanted.json ? format_json(found) : format_text(found)).c_str(), stdout);
    const bool faulty = count_level(found, trap_level::Error) > 0 ||
                        (wanted.deny_warnings && !found.findings.empty());
    return faulty ? kErrorsFound : 0;
}

// Takes the options. Returns -1 to go on with the files, or the exit status.
int take_options(int argc, char **argv, settings *wanted) {
    int code;
    while ((code = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
        switch (code) {
            case kJson:
                wanted->json = true;
                break;
            case kDeny:
                wanted->deny_warnings = true;
                break;
            case kNoHost:
                wanted->host = false;
                break;
            case kLogrotate:
                wanted->logrotate = optarg;
                break;
            case kEffective:
                wanted->effective = true;
                break;
            case kLive:
                wanted->live = true;
                break;
            case kExplain:
                return explain(optarg);
            case kInit:
                fputs(kExampleConfiguration, stdout);
                return 0;
            case 'h':
                fputs(kUsageText, stdout);
                return 0;
            case kVersion:
                puts("siem_collector_check " COLLECTOR_VERSION);
                return 0;
            default:
                fputs(kUsageText, stderr);
                return kUsage;
        }
    }
    return -1;
}

}  // namespace

int main(int argc, char **argv) {
    setlocale(LC_CTYPE, "");
    settings wanted;
    const int answered = take_options(argc, argv, &wanted);
    if (answered >= 0) return answered;
    if (optind == argc) {
        fprintf(stderr, "siem_collector_check: no file named\n\n%s", kUsageText);
        return kUsage;
    }
    int worst = 0;
    for (int i = optind; i < argc; i++) {
        const int status = wanted.effective ? print_effective(argv[i])
                           : wanted.live    ? check_live(argv[i])
                                            : check_file(argv[i], wanted);
        if (status > worst) worst = status;
    }
    return worst;
}
