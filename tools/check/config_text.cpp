#include "tools/check/config_text.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include "config/conf.h"
#include "core/utils.h"

namespace {

std::string narrow(const wchar_t *text) {
    std::unique_ptr<char, decltype(&free)> copy(wstrtostr(text), &free);
    return copy ? copy.get() : "";
}

bool is_blank_line(const std::string &raw) {
    return std::all_of(raw.begin(), raw.end(),
                       [](char c) { return static_cast<unsigned char>(c) <= 32; });
}

std::vector<config_line> split(const std::string &bytes) {
    std::vector<config_line> lines;
    size_t at = 0;
    while (at < bytes.size()) {
        const size_t end = bytes.find('\n', at);
        config_line line{};
        line.number = static_cast<int>(lines.size()) + 1;
        line.ended = end != std::string::npos;
        line.raw = bytes.substr(at, line.ended ? end - at : std::string::npos);
        line.skipped = line.raw.starts_with('#') || is_blank_line(line.raw);
        line.has_equals = line.raw.find('=') != std::string::npos;
        line.section = -1;
        lines.push_back(line);
        at = line.ended ? end + 1 : bytes.size();
    }
    return lines;
}

// The daemon's reader keeps comments in this form, so that pair and line have the same index.
bool take_pairs(const std::string &path, std::vector<config_line> *lines) {
    key_value_pair_spec *spec = nullptr;
    const int failed = conf_parse_key_value_pair(path.c_str(), &spec, 1);
    std::unique_ptr<key_value_pair_spec, decltype(&conf_teardown_key_value_pair)> owner(
        spec, &conf_teardown_key_value_pair);
    if (failed || spec == nullptr) return false;
    const size_t count = std::min(lines->size(), static_cast<size_t>(spec->count));
    for (size_t i = 0; i < count; i++) {
        (*lines)[i].key = narrow(spec->kvp[i]->key);
        (*lines)[i].value = narrow(spec->kvp[i]->value);
    }
    return true;
}

void find_sections(config_text *text) {
    int open = -1;
    for (size_t i = 0; i < text->lines.size(); i++) {
        config_line &line = text->lines[i];
        if (line.skipped) continue;
        if (line.key == "type") {
            text->sections.push_back({line.number, line.value, {}});
            line.section = ++open;
            continue;
        }
        line.section = open;
        if (open >= 0) text->sections[open].lines.push_back(static_cast<int>(i));
    }
}

}  // namespace

bool config_text_read(const std::string &path, config_text *text, std::string *reason) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        *reason = strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        *reason = "not a regular file";
        return false;
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        *reason = strerror(errno);
        return false;
    }
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    text->path = path;
    text->lines = split(bytes);
    text->sections.clear();
    if (!take_pairs(path, &text->lines)) {
        *reason = "the configuration reader refused it";
        return false;
    }
    find_sections(text);
    return true;
}

const config_line *global_line(const config_text &text, const std::string &key) {
    const config_line *found = nullptr;
    for (const config_line &line : text.lines) {
        if (!line.skipped && line.section < 0 && line.key == key) found = &line;
    }
    return found;
}

const config_line *section_line(const config_text &text, const config_section &section,
                                const std::string &key) {
    const config_line *found = nullptr;
    for (const int index : section.lines) {
        const config_line &line = text.lines[index];
        if (section_key_meant(line.key) == key) found = &line;
    }
    return found;
}

std::string section_key_meant(const std::string &key) {
    for (const std::string &name : section_keys()) {
        if (name.starts_with(key)) return name;
    }
    return "";
}

const std::vector<std::string> &global_keys() {
    static const std::vector<std::string> names{
        "rec_ip",           "rec_port",       "rec_encrypt",   "bookmark_dir",
        "debug_level",      "log_path",       "sleep",         "throttle",
        "daemonize",        "rec_confirm",    "rec_tls_min",   "rec_tls_ca",
        "rec_tls_name",     "rec_tls_cert",   "rec_tls_key",   "reconnect_wait",
        "small_file_guard", "rotation_drain", "wake_on_change"};
    return names;
}

const std::vector<std::string> &section_keys() {
    static const std::vector<std::string> names{"subtype",
                                                "hostid",
                                                "ft_dir",
                                                "ft_filter",
                                                "ft_delim",
                                                "ft_start_top",
                                                "ft_delim_end_of_event"};
    return names;
}

std::string nearest_name(const std::string &word, const std::vector<std::string> &names) {
    std::string best;
    size_t best_distance = 1 + std::max<size_t>(2, word.size() / 3);
    for (const std::string &name : names) {
        std::vector<size_t> row(name.size() + 1);
        for (size_t j = 0; j < row.size(); j++) row[j] = j;
        for (size_t i = 1; i <= word.size(); i++) {
            size_t corner = row[0];
            row[0] = i;
            for (size_t j = 1; j <= name.size(); j++) {
                const size_t change = corner + (word[i - 1] != name[j - 1]);
                corner = row[j];
                row[j] = std::min({row[j] + 1, row[j - 1] + 1, change});
            }
        }
        if (row.back() < best_distance) {
            best_distance = row.back();
            best = name;
        }
    }
    return best;
}
