#include "tools/status/present.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "tools/check/report.h"

namespace {

constexpr size_t kFilesShown = 40;  // one screen; --json has them all

std::string format(const char *pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *pattern, ...) {
    char line[512];
    va_list arguments;
    va_start(arguments, pattern);
    vsnprintf(line, sizeof line, pattern, arguments);
    va_end(arguments);
    return line;
}

// Names and log lines may hold anything, and a terminal obeys control characters.
std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < 32 || c == 127; }, '?');
    return text;
}

std::string when(long seconds) {
    if (seconds == 0) return "an unknown time";
    char text[32];
    struct tm parts {};
    const time_t at = seconds;
    localtime_r(&at, &parts);
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

std::string duration(long seconds) {
    if (seconds < 120) return format("%lds", seconds);
    if (seconds < 7200) return format("%ldm", seconds / 60);
    if (seconds < 172800) return format("%ldh", seconds / 3600);
    return format("%ldd", seconds / 86400);
}

std::string name_of(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

std::string notes(const file_state &file) {
    std::string text;
    const auto add = [&](bool holds, const std::string &note) {
        if (holds) text += (text.empty() ? "" : ", ") + note;
    };
    add(!file.readable, "not readable");
    add(file.forbidden, "the collector may not read it");
    add(file.unsure, "position unknown");
    add(!file.known && !file.unsure, "no bookmark yet");
    if (!file.rest_of.empty()) add(true, "rest of " + name_of(file.rest_of) + ", sent before it");
    add(file.waits_for_rest, "new file: read from 0 when that rest was sent");
    add(file.head_changed && !file.waits_for_rest, "head changed: read again from 0");
    add(file.small, "under 256 bytes");
    add(file.waiting > 0, "waits for a delimiter");
    add(file.nul_ahead, "NUL bytes ahead");
    add(file.long_ahead, "event over 65,535 bytes ahead");
    return text;
}

std::string events_text(const file_state &file) {
    if (file.events < 0) return "?";
    return (file.estimated ? "~" : "") + std::to_string(file.events);
}

std::string count_of(size_t count, const char *what) {
    return format("%zu %s%s", count, what, count == 1 ? "" : "s");
}

// What is wrong, for the first line: monitoring systems show no other.
std::string troubles(const survey &taken) {
    size_t unreadable = 0;
    size_t forbidden = 0;
    size_t closed = 0;
    for (const plugin_state &plugin : taken.plugins) {
        closed += plugin.error.empty() ? 0 : 1;
        for (const file_state &file : plugin.files) {
            unreadable += file.readable ? 0 : 1;
            forbidden += file.forbidden ? 1 : 0;
        }
    }
    std::string text;
    const auto add = [&](bool holds, const std::string &what) {
        if (holds) text += ", " + what;
    };
    add(taken.link == receiver_link::none, "not connected to the Receiver");
    add(!taken.bookmarks.problems.empty(),
        count_of(taken.bookmarks.problems.size(), "bad bookmark record"));
    add(!taken.bookmarks.readable && !taken.bookmarks.absent, "the bookmark file cannot be read");
    add(taken.bookmarks_forbidden, taken.user + " may not write the bookmark file");
    add(closed > 0, format("%zu of the directories cannot be read", closed));
    add(forbidden > 0, taken.user + " may not read " + count_of(forbidden, "file"));
    add(unreadable > 0, "this user may not read " + count_of(unreadable, "file"));
    return text;
}

const char *verdict_word(verdict v) {
    static const char *const words[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    return words[v];
}

const char *truth(bool value) {
    return value ? "true" : "false";
}

}  // namespace

verdict judge(const survey &taken, const lag_limits &limits) {
    if (!taken.error.empty() || !taken.lock_table) return kUnknown;
    if (!taken.up || !taken.bookmarks.problems.empty()) return kCritical;
    if (total_lag(taken) >= limits.critical) return kCritical;
    if (taken.bookmarks_forbidden || taken.link == receiver_link::none) return kWarning;
    if (!taken.bookmarks.readable && !taken.bookmarks.absent) return kWarning;
    bool warn = total_lag(taken) >= limits.warning;
    for (const plugin_state &plugin : taken.plugins) {
        warn |= !plugin.error.empty();
        for (const file_state &file : plugin.files) warn |= !file.readable || file.forbidden;
    }
    return warn ? kWarning : kFine;
}

namespace {

std::string first_line(const survey &taken, const lag_limits &limits) {
    std::string line = verdict_word(judge(taken, limits));
    line += taken.up ? "  collector up" : "  collector down";
    if (taken.up) line += format(", process %ld since %s", taken.pid, when(taken.since).c_str());
    if (!taken.lock_table) line += " (the lock table cannot be read)";
    if (!taken.error.empty()) return line;
    line += format(", %llu bytes behind", static_cast<unsigned long long>(total_lag(taken)));
    return line + troubles(taken);
}

}  // namespace

std::string present_screen(const survey &taken, const lag_limits &limits) {
    std::string out = first_line(taken, limits);
    out += "\nconfiguration " + printable(taken.config_path);
    if (!taken.error.empty()) return out + ": " + taken.error + "\n";
    out += "\nbookmarks " + printable(taken.bookmark_path);
    out += taken.bookmarks.readable
               ? format(": %zu records, %zu problems\n", taken.bookmarks.records,
                        taken.bookmarks.problems.size())
               : ": " + taken.bookmarks.reason + "\n";
    for (const plugin_state &plugin : taken.plugins) {
        out += "\n" + printable(plugin.directory + plugin.filter);
        out += plugin.error.empty() ? format("  (%zu files)\n", plugin.files.size())
                                    : ": " + plugin.error + "\n";
        if (plugin.files.empty()) continue;
        out += format("  %14s %14s %12s %9s %8s %6s  %s\n", "size", "position", "lag", "events",
                      "waiting", "age", "file");
        for (size_t i = 0; i < plugin.files.size() && i < kFilesShown; i++) {
            const file_state &file = plugin.files[i];
            out += format("  %14llu %14llu %12llu %9s %8llu %6s  ",
                          static_cast<unsigned long long>(file.size),
                          static_cast<unsigned long long>(file.position),
                          static_cast<unsigned long long>(file.lag), events_text(file).c_str(),
                          static_cast<unsigned long long>(file.waiting),
                          duration(file.age_seconds).c_str());
            const std::string note = notes(file);
            out += printable(file.path.substr(plugin.directory.size())) +
                   (note.empty() ? "" : "  [" + printable(note) + "]") + "\n";
        }
        if (plugin.files.size() > kFilesShown) {
            out += format("  ... and %zu more (--json shows all)\n",
                          plugin.files.size() - kFilesShown);
        }
    }
    if (!taken.last_errors.empty()) out += "\nlast errors\n";
    for (const std::string &line : taken.last_errors) out += "  " + printable(line) + "\n";
    return out;
}

std::string present_json(const survey &taken, const lag_limits &limits) {
    std::string out =
        format("{\"status\": \"%s\", \"up\": %s, \"pid\": %ld, \"since\": %ld, ",
               verdict_word(judge(taken, limits)), truth(taken.up), taken.pid, taken.since);
    out += "\"config\": " + json_string(taken.config_path) +
           ", \"error\": " + json_string(taken.error) + ", \"user\": " + json_string(taken.user) +
           ", \"connected\": " + (taken.link ? truth(*taken.link != receiver_link::none) : "null") +
           ", \"bookmark_file\": " + json_string(taken.bookmark_path);
    out += format(", \"bookmark_records\": %zu, \"bookmark_problems\": %zu, \"lag_bytes\": %llu, ",
                  taken.bookmarks.records, taken.bookmarks.problems.size(),
                  static_cast<unsigned long long>(total_lag(taken)));
    out += "\"plugins\": [";
    for (size_t p = 0; p < taken.plugins.size(); p++) {
        const plugin_state &plugin = taken.plugins[p];
        out += (p == 0 ? "\n " : ",\n ") + ("{\"directory\": " + json_string(plugin.directory)) +
               ", \"filter\": " + json_string(plugin.filter) +
               ", \"error\": " + json_string(plugin.error) + ", \"files\": [";
        for (size_t i = 0; i < plugin.files.size(); i++) {
            const file_state &file = plugin.files[i];
            out += (i == 0 ? "\n  " : ",\n  ") + ("{\"path\": " + json_string(file.path));
            out += format(
                ", \"size\": %llu, \"position\": %llu, \"lag_bytes\": %llu, "
                "\"events\": %lld, \"estimated\": %s, \"waiting_bytes\": %llu, ",
                static_cast<unsigned long long>(file.size),
                static_cast<unsigned long long>(file.position),
                static_cast<unsigned long long>(file.lag), static_cast<long long>(file.events),
                truth(file.estimated), static_cast<unsigned long long>(file.waiting));
            out += format(
                "\"age_seconds\": %ld, \"known\": %s, \"unsure\": %s, \"readable\": %s, "
                "\"forbidden\": %s, \"head_changed\": %s, \"small\": %s, "
                "\"nul_ahead\": %s, \"long_ahead\": %s, \"waits_for_rest\": %s, ",
                file.age_seconds, truth(file.known), truth(file.unsure), truth(file.readable),
                truth(file.forbidden), truth(file.head_changed), truth(file.small),
                truth(file.nul_ahead), truth(file.long_ahead), truth(file.waits_for_rest));
            out += "\"rest_of\": " + json_string(file.rest_of) + "}";
        }
        out += "]}";
    }
    out += "], \"last_errors\": [";
    for (size_t i = 0; i < taken.last_errors.size(); i++) {
        out += (i == 0 ? "" : ", ") + json_string(taken.last_errors[i]);
    }
    return out + "]}\n";
}

std::string present_prometheus(const survey &taken) {
    std::string out;
    const auto gauge = [&](const char *name, const char *help) {
        out += format("# HELP %s %s\n# TYPE %s gauge\n", name, help, name);
    };
    gauge("siem_collector_up", "1 while a collector holds the lock file.");
    out += format("siem_collector_up %d\n", taken.up ? 1 : 0);
    gauge("siem_collector_start_time_seconds", "When the collector began, seconds since 1970.");
    out += format("siem_collector_start_time_seconds %ld\n", taken.since);
    if (taken.link) {
        gauge("siem_collector_connected", "1 while it has a connection to the Receiver.");
        out += format("siem_collector_connected %d\n", *taken.link == receiver_link::none ? 0 : 1);
    }
    gauge("siem_collector_bookmark_records", "Records of the bookmark file.");
    out += format("siem_collector_bookmark_records %zu\n", taken.bookmarks.records);
    gauge("siem_collector_bookmark_damaged_records", "Damaged, short and double bookmark records.");
    out += format("siem_collector_bookmark_damaged_records %zu\n", taken.bookmarks.problems.size());
    gauge("siem_collector_status_timestamp_seconds", "When this was gathered, seconds since 1970.");
    out += format("siem_collector_status_timestamp_seconds %ld\n", taken.taken_at);
    gauge("siem_collector_files_unreadable", "Files that the collector may not read.");
    size_t unreadable = 0;
    for (const plugin_state &plugin : taken.plugins) {
        for (const file_state &file : plugin.files) unreadable += file.forbidden ? 1 : 0;
    }
    out += format("siem_collector_files_unreadable %zu\n", unreadable);
    gauge("siem_collector_file_lag_bytes", "Bytes of whole events that were not sent yet.");
    for (const plugin_state &plugin : taken.plugins) {
        for (const file_state &file : plugin.files) {
            if (file.unsure) continue;
            // A label is written like a JSON string, but knows no \u escapes.
            out += "siem_collector_file_lag_bytes{path=" + json_string(printable(file.path)) +
                   format("} %llu\n", static_cast<unsigned long long>(file.lag));
        }
    }
    return out;
}

std::string present_verification(const survey &taken) {
    if (!taken.bookmarks.readable) {
        return taken.bookmark_path + ": " + taken.bookmarks.reason + "\n";
    }
    std::string out;
    for (const bookmark_problem &problem : taken.bookmarks.problems) {
        out += printable(taken.bookmark_path) +
               format(": record %zu: %s: ", problem.record, problem.what.c_str()) +
               printable(problem.path) + "\n";
    }
    size_t orphans = 0;
    for (const auto &[path, position] : taken.bookmarks.positions) {
        struct stat info {};
        if (stat(path.c_str(), &info) != 0) {
            orphans++;
            out += "orphan: " + printable(path) + " no longer exists\n";
        }
    }
    return out + printable(taken.bookmark_path) +
           format(": %zu records, %zu problems, %zu orphans\n", taken.bookmarks.records,
                  taken.bookmarks.problems.size(), orphans);
}
