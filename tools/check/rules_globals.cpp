#include <cctype>
#include <cstdlib>
#include <string>

#include "tools/check/rules.h"

namespace {

constexpr size_t kBookmarkPathBytes = 255;
constexpr size_t kBookmarkNameBytes = 12;  // "/ft_bookmark"
constexpr long kHourSeconds = 3600;

bool is_word(const std::string &value) {
    return !value.empty() && !number_of(value);
}

bool has_tail(const std::string &value) {
    char *end = nullptr;
    strtol(value.c_str(), &end, 10);
    return number_of(value) && *end != '\0';
}

// True when the value is a plain number; otherwise the reason is reported.
bool check_number(const config_line &line, report *found) {
    if (line.value.empty()) {
        found->add("T79", line.number, line.key);
    } else if (is_word(line.value)) {
        found->add("T23", line.number, line.key + "=" + line.value);
    } else if (has_tail(line.value)) {
        found->add(
            "T24", line.number,
            line.key + "=" + line.value + " is read as " + std::to_string(*number_of(line.value)));
    } else {
        return true;
    }
    return false;
}

// A text that must not be empty. Null when there is none to look at.
const config_line *filled(const config_text &text, const char *key, report *found) {
    const config_line *line = global_line(text, key);
    if (line == nullptr) return nullptr;
    if (!line->value.empty()) return line;
    found->add("T79", line->number, key);
    return nullptr;
}

void check_receiver(const config_text &text, report *found) {
    if (global_line(text, "rec_ip") == nullptr) found->add("T20", 0);
    if (const config_line *ip = filled(text, "rec_ip", found)) {
        const size_t colon = ip->value.find(':');
        const bool one_colon = colon != std::string::npos && ip->value.rfind(':') == colon;
        if (ip->value.find('/') != std::string::npos || ip->value.front() == '[' || one_colon) {
            found->add("T26", ip->number, ip->value);
        }
    }
    const config_line *port = global_line(text, "rec_port");
    if (port == nullptr) {
        found->add("T21", 0);
    } else if (check_number(*port, found)) {
        const long number = *number_of(port->value);
        if (number < 1 || number > 65535) found->add("T22", port->number, port->value);
    }
    const config_line *encrypt = global_line(text, "rec_encrypt");
    if (encrypt != nullptr && check_number(*encrypt, found)) {
        const long mode = *number_of(encrypt->value);
        if (mode < 0 || mode > 2) found->add("T25", encrypt->number, encrypt->value);
    }
}

void check_bookmarks(const config_text &text, report *found) {
    if (global_line(text, "bookmark_dir") == nullptr) found->add("T30", 0);
    const config_line *line = filled(text, "bookmark_dir", found);
    if (line == nullptr) return;
    if (line->value.front() != '/') {
        found->add("T31", line->number, line->value);
    } else if (line->value.size() + kBookmarkNameBytes > kBookmarkPathBytes) {
        found->add("T33", line->number);
    } else if (line->value.size() > 1 && line->value.back() == '/') {
        found->add("T32", line->number, line->value);
    }
}

bool is_level(const std::string &word) {
    for (const char *level :
         {"error", "info", "warn", "debug", "diag", "ERROR", "INFO", "WARN", "DEBUG", "DIAG"}) {
        if (word == level) return true;
    }
    return false;
}

void check_log(const config_text &text, report *found) {
    const config_line *level = global_line(text, "debug_level");
    if (level == nullptr) {
        found->add("T35", 0);
    } else if (!is_level(level->value)) {
        found->add("T34", level->number, level->value);
    } else if (tolower(level->value[0]) == 'd') {
        found->add("T41", level->number, level->value);
    }
    const config_line *path = filled(text, "log_path", found);
    if (path == nullptr) return;
    if (path->value.front() != '/') {
        found->add("T36", path->number, path->value);
        return;
    }
    for (const char c : path->value) {
        if (!isalnum(static_cast<unsigned char>(c)) &&
            std::string("._-/").find(c) == std::string::npos) {
            found->add("T37", path->number, path->value);
            return;
        }
    }
}

void check_pace(const config_text &text, report *found) {
    const config_line *pause = global_line(text, "sleep");
    if (pause == nullptr) {
        found->add("T38", 0);
    } else if (check_number(*pause, found)) {
        const long seconds = *number_of(pause->value);
        if (seconds <= 0) found->add("T38", pause->number, pause->value);
        if (seconds > kHourSeconds) found->add("T40", pause->number, pause->value);
    }
    const config_line *throttle = global_line(text, "throttle");
    if (throttle == nullptr) {
        found->add("T39", 0);
    } else if (check_number(*throttle, found) && *number_of(throttle->value) <= 0) {
        found->add("T39", throttle->number, throttle->value);
    }
    const config_line *detach = global_line(text, "daemonize");
    if (detach != nullptr) check_number(*detach, found);
}

void check_switches(const config_text &text, report *found) {
    const config_line *wait = global_line(text, "reconnect_wait");
    if (wait != nullptr && check_number(*wait, found)) {
        const long seconds = *number_of(wait->value);
        if (seconds < 1 || seconds > 300) found->add("T45", wait->number, wait->value);
    }
    const config_line *confirm = global_line(text, "rec_confirm");
    if (confirm != nullptr && check_number(*confirm, found) && *number_of(confirm->value) < 1) {
        found->add("T46", confirm->number, confirm->value);
    }
    for (const char *key : {"small_file_guard", "rotation_drain", "wake_on_change"}) {
        const config_line *line = global_line(text, key);
        if (line != nullptr && line->value != "0" && line->value != "1") {
            found->add("T50", line->number, std::string(key) + "=" + line->value);
        }
    }
}

void check_tls(const config_text &text, report *found) {
    const config_line *first = nullptr;
    for (const char *key :
         {"rec_tls_min", "rec_tls_ca", "rec_tls_name", "rec_tls_cert", "rec_tls_key"}) {
        const config_line *line = filled(text, key, found);
        if (line != nullptr && (first == nullptr || line->number < first->number)) first = line;
    }
    if (first == nullptr) return;
    if (number_of(global_value(text, "rec_encrypt")).value_or(0) == 0) {
        found->add("T47", first->number, first->key);
    }
    const config_line *lowest = global_line(text, "rec_tls_min");
    if (lowest != nullptr && !lowest->value.empty() && lowest->value != "1.2" &&
        lowest->value != "1.3") {
        found->add("T48", lowest->number, lowest->value);
    }
    const config_line *cert = global_line(text, "rec_tls_cert");
    const config_line *key = global_line(text, "rec_tls_key");
    if ((cert == nullptr) != (key == nullptr)) found->add("T49", (cert ? cert : key)->number);
    for (const char *name : {"rec_tls_ca", "rec_tls_cert", "rec_tls_key"}) {
        const config_line *line = global_line(text, name);
        if (line != nullptr && !line->value.empty() && line->value.front() != '/') {
            found->add("T51", line->number, line->value);
        }
    }
}

}  // namespace

std::optional<long> number_of(const std::string &value) {
    char *end = nullptr;
    const long number = strtol(value.c_str(), &end, 10);
    if (end == value.c_str()) return std::nullopt;
    return number;
}

std::string global_value(const config_text &text, const std::string &key) {
    const config_line *line = global_line(text, key);
    return line == nullptr ? "" : line->value;
}

void check_globals(const config_text &text, report *found) {
    check_receiver(text, found);
    check_bookmarks(text, found);
    check_log(text, found);
    check_pace(text, found);
    check_switches(text, found);
    check_tls(text, found);
}
