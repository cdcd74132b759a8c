#include "tools/check/effective.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "config/conf.h"
#include "config/plugin.h"
#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/args.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"

namespace {

constexpr int kUnreadable = 66;

std::string shown(const wchar_t *text) {
    if (text == nullptr) return "(not set)";
    std::unique_ptr<char, decltype(&free)> copy(wstrtostr(text), &free);
    return copy ? copy.get() : "(no memory)";
}

void print_line(const char *key, const std::string &value) {
    printf("%-22s = %s\n", key, value.c_str());
}

void print_number(const char *key, long value, const char *note = "") {
    printf("%-22s = %ld%s\n", key, value, note);
}

const char *encrypt_note(int mode) {
    return mode == 0 ? "  (plain)" : mode == 2 ? "  (TLS on request)" : "  (TLS required)";
}

void print_globals(const config &settings) {
    print_line("rec_ip", shown(settings.ruv.server));
    print_number("rec_port", settings.ruv.port);
    print_number("rec_encrypt", settings.ruv.encrypt, encrypt_note(settings.ruv.encrypt));
    print_line("bookmark_dir", shown(settings.bm_dir));
    print_line("debug_level", shown(settings.debug));
    const uint64_t mask = settings.debug == nullptr ? 1 : translate_level(settings.debug);
    print_number("  log mask", static_cast<long>(mask), mask == 0 ? "  (nothing is logged)" : "");
    print_line("log_path", shown(settings.log));
    print_number("sleep", settings.sleep_time, settings.sleep_time <= 0 ? "  (no pause)" : "");
    print_number("throttle", settings.throttle,
                 settings.throttle <= 0 ? "  (nothing is read)" : "");
    print_number("daemonize", g_args.daemon);
    print_number("rec_confirm", settings.rec_confirm);
    print_line("rec_tls_min", shown(settings.rec_tls_min));
    print_line("rec_tls_ca", shown(settings.rec_tls_ca));
    print_line("rec_tls_name", shown(settings.rec_tls_name));
    print_line("rec_tls_cert", shown(settings.rec_tls_cert));
    print_line("rec_tls_key", shown(settings.rec_tls_key));
    print_number("reconnect_wait", settings.reconnect_wait == 0 ? 300 : settings.reconnect_wait);
    print_number("small_file_guard", settings.small_file_guard);
    print_number("rotation_drain", settings.rotation_drain);
    print_number("wake_on_change", settings.wake_on_change);
}

void print_section(const plugin &section, int number) {
    printf("\nsection %d\n", number);
    print_line("  ft_dir", shown(section.ft.ft_dir));
    print_line("  ft_filter", shown(section.ft.ft_filter));
    print_line("  ft_delim", shown(section.ft.ft_delim));
    print_number("  ft_delim_end_of_event", section.ft.ft_delim_end);
    print_number("  ft_start_top", section.ft.ft_start_top);
    print_line("  hostid", section.hostid == nullptr ? "(not set)" : section.hostid);
    print_line("  subtype", section.process_event == nullptr ? "(not set)" : "big_fix");
}

// The daemon's registry starts what it reads; here each section is only filled and shown.
void print_sections(int start, const key_value_pair_spec &pairs) {
    int number = 0;
    for (int i = start < 0 ? 0 : start; i < pairs.count; i++) {
        if (wcscmp(pairs.kvp[i]->key, L"type") != 0) continue;
        if (wcscmp(pairs.kvp[i]->value, L"filetail") != 0) {
            printf("\nsection of the unknown type %s: ignored\n",
                   shown(pairs.kvp[i]->value).c_str());
            continue;
        }
        plugin section{};
        section.flags = kFileTail;
        section.ft.ft_delim_end = 1;
        for (int k = i + 1; k < pairs.count && wcscmp(pairs.kvp[k]->key, L"type") != 0; k++) {
            plugin_add_kv(&section, pairs.kvp[k]);
        }
        print_section(section, ++number);
        plugin_shutdown(&section, 0);
    }
    if (number == 0) printf("\nno section: nothing is tailed\n");
}

}  // namespace

int print_effective(const std::string &path) {
    key_value_pair_spec *list = nullptr;
    const int failed = conf_parse_key_value_pair(path.c_str(), &list, 0);
    std::unique_ptr<key_value_pair_spec, decltype(&conf_teardown_key_value_pair)> pairs(
        list, &conf_teardown_key_value_pair);
    if (failed || pairs == nullptr) return kUnreadable;
    set_log_level(0);  // what the daemon would log is what the checker reports in its own words
    const int start = config_init(pairs.get(), &conf);
    print_globals(conf);
    print_sections(start, *pairs);
    config_teardown(&conf);
    return 0;
}

const char *const kExampleConfiguration =
    R"(# The Receiver: host name or address, port, and 1 for TLS.
rec_ip=127.0.0.1
rec_port=8082
rec_encrypt=0

# Where the positions of the tailed files are kept.
bookmark_dir=/var/lib/velmor-siem-collector

# error, info, warn, debug or diag; each includes those before it. The log file is used with -f.
debug_level=info
log_path=/var/log/velmor/siem_collector.log

# Seconds to pause when nothing was found, and events of one file before the next has its turn.
sleep=5
throttle=500

# 1 detaches from the terminal; a service manager wants 0.
daemonize=0

# One section for each directory and pattern.
type=filetail
ft_dir=/var/log
ft_filter=dpkg.log
ft_delim=<newline>
ft_start_top=0
)";
