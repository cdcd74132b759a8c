#include <fnmatch.h>

#include <algorithm>
#include <string>

#include "filetail/cutter.h"
#include "filetail/delimiter.h"
#include "tools/check/rules.h"

namespace {

constexpr size_t kPathBytes = 150;
constexpr size_t kHostidBytes = 65535;

bool matches(const std::string &pattern, const std::string &name) {
    return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

std::string parent_of(const std::string &path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

std::string name_of(const std::string &path) {
    return path.substr(parent_of(path).size());
}

void check_directory(const config_text &text, const config_section &section, report *found) {
    const config_line *line = section_line(text, section, "ft_dir");
    if (line == nullptr) {
        found->add("T62", section.number);
        return;
    }
    const std::string &value = line->value;
    const std::string filter = section_value(text, section, "ft_filter");
    if (value.empty()) {
        found->add("T79", line->number, "ft_dir");
    } else if (value.front() != '/') {
        found->add("T65", line->number, value);
    } else if (value.find_first_of(" \t") != std::string::npos &&
               value.find_last_not_of(" \t") + 1 == value.size()) {
        found->add("T66", line->number, value);
    } else if (section_directory(text, section).size() + std::max<size_t>(filter.size(), 1) >
               kPathBytes) {
        found->add("T67", line->number);
    }
}

// A stem that the pattern matches, tried with the endings that rotation gives to old files.
void check_rotated(const std::string &filter, int line, report *found) {
    for (const char *stem : {"app.log", "syslog", "messages", "access", "a"}) {
        if (!matches(filter, stem)) continue;
        for (const char *ending : {".1", ".2.gz", "-20260131", ".gz", ".xz", ".zst"}) {
            if (matches(filter, std::string(stem) + ending)) {
                found->add("T69", line, filter + " matches " + stem + ending);
                return;
            }
        }
    }
    const size_t star = filter.rfind('*');
    if (star == std::string::npos || star == 0 || star + 1 != filter.size()) return;
    std::string stem = filter.substr(0, star);
    std::replace_if(
        stem.begin(), stem.end(), [](char c) { return c == '*' || c == '?'; }, 'a');
    if (matches(filter, stem + ".1") || matches(filter, stem + "1.gz")) {
        found->add("T69", line, filter + " matches " + stem + ".1");
    }
}

void check_filter(const config_text &text, const config_section &section, report *found) {
    const config_line *line = section_line(text, section, "ft_filter");
    if (line == nullptr) {
        found->add("T63", section.number);
    } else if (line->value.empty()) {
        found->add("T79", line->number, "ft_filter");
    } else if (line->value.find('/') != std::string::npos) {
        found->add("T68", line->number, line->value);
    } else {
        check_rotated(line->value, line->number, found);
    }
}

void check_delimiter(const config_text &text, const config_section &section, report *found) {
    const config_line *line = section_line(text, section, "ft_delim");
    if (line == nullptr) {
        found->add("T64", section.number);
        return;
    }
    const std::string &word = line->value;
    if (word.empty()) {
        found->add("T79", line->number, "ft_delim");
        return;
    }
    if (word == "newline" || word == "tab" || word == "space") {
        found->add("T78", line->number, word);
        return;
    }
    std::string reason;
    const delimiter_ptr pattern = delimiter_compile(translate_delim(word.c_str()), &reason);
    if (pattern == nullptr) {
        found->add("T70", line->number, word + " (" + reason + ")");
        return;
    }
    delimiter_hit hit{};
    const char sample[] = "2026-01-31 12:00:00 a\n";
    for (size_t from = 0; from < sizeof sample - 1; from++) {
        const int answer =
            delimiter_find(pattern.get(), sample, sizeof sample - 1, {from, false, false}, &hit);
        if (answer == kDelimiterFound && hit.begin == hit.end) {
            found->add("T71", line->number, word);
            return;
        }
    }
}

void check_choices(const config_text &text, const config_section &section, report *found) {
    const auto one_of = [&](const char *key, const char *id) {
        const config_line *line = section_line(text, section, key);
        if (line != nullptr && !line->value.empty() && line->value != "0" && line->value != "1") {
            found->add(id, line->number, line->value);
        }
    };
    one_of("ft_start_top", "T72");
    one_of("ft_delim_end_of_event", "T73");
    const config_line *subtype = section_line(text, section, "subtype");
    if (subtype != nullptr && !subtype->key.empty() && !subtype->value.empty() &&
        !std::string("big_fix").starts_with(subtype->value)) {
        found->add("T74", subtype->number, subtype->value);
    }
    const config_line *hostid = section_line(text, section, "hostid");
    if (hostid != nullptr && hostid->value.size() > kHostidBytes) {
        found->add("T80", hostid->number, std::to_string(hostid->value.size()) + " bytes");
    }
}

void check_own_files(const config_text &text, const config_section &section, report *found) {
    const std::string directory = section_directory(text, section);
    const std::string filter = section_value(text, section, "ft_filter");
    if (directory.empty() || filter.empty()) return;
    std::string log = global_value(text, "log_path");
    if (log.empty()) log = "/var/log/velmor/siem_collector.log";
    if (parent_of(log) == directory && matches(filter, name_of(log))) {
        found->add("T76", section.number, log);
    }
    const std::string bookmarks = global_value(text, "bookmark_dir");
    const bool ends = !bookmarks.empty() && bookmarks.back() == '/';
    if (!bookmarks.empty() && bookmarks + (ends ? "" : "/") == directory &&
        matches(filter, "ft_bookmark")) {
        found->add("T77", section.number, directory + "ft_bookmark");
    }
}

bool has_wildcard(const std::string &filter) {
    return filter.find_first_of("*?[\\") != std::string::npos;
}

// Two patterns share a name when either matches the other's text or a sample made from it. Patterns
// that only meet in names nobody uses are left alone.
bool share_a_name(const std::string &a, const std::string &b) {
    if (a == b) return true;
    if (!has_wildcard(a)) return matches(b, a);
    if (!has_wildcard(b)) return matches(a, b);
    for (const std::string &pattern : {a, b}) {
        std::string sample = pattern;
        std::replace(sample.begin(), sample.end(), '?', 'x');
        std::string shortest = sample;
        std::erase(shortest, '*');
        std::replace(sample.begin(), sample.end(), '*', 'x');
        if (matches(a, sample) && matches(b, sample)) return true;
        if (matches(a, shortest) && matches(b, shortest)) return true;
    }
    return false;
}

void check_overlap(const config_text &text, report *found) {
    for (size_t i = 0; i < text.sections.size(); i++) {
        const std::string directory = section_directory(text, text.sections[i]);
        const std::string filter = section_value(text, text.sections[i], "ft_filter");
        if (directory.empty() || filter.empty() || text.sections[i].type != "filetail") continue;
        for (size_t j = 0; j < i; j++) {
            if (text.sections[j].type == "filetail" &&
                section_directory(text, text.sections[j]) == directory &&
                share_a_name(filter, section_value(text, text.sections[j], "ft_filter"))) {
                found->add("T75", text.sections[i].number,
                           "the other begins at line " + std::to_string(text.sections[j].number));
                break;
            }
        }
    }
}

}  // namespace

std::string section_value(const config_text &text, const config_section &section,
                          const std::string &key) {
    const config_line *line = section_line(text, section, key);
    return line == nullptr ? "" : line->value;
}

std::string section_directory(const config_text &text, const config_section &section) {
    std::string directory = section_value(text, section, "ft_dir");
    if (!directory.empty() && directory.back() != '/') directory += '/';
    return directory;
}

void check_sections(const config_text &text, report *found) {
    if (text.sections.empty()) found->add("T60", 0);
    for (const config_section &section : text.sections) {
        if (section.type != "filetail") {
            found->add("T61", section.number, section.type);
            continue;
        }
        check_directory(text, section, found);
        check_filter(text, section, found);
        check_delimiter(text, section, found);
        check_choices(text, section, found);
        check_own_files(text, section, found);
    }
    check_overlap(text, found);
}
