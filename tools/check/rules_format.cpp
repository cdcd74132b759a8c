#include <algorithm>
#include <cctype>
#include <set>
#include <string>

#include "tools/check/rules.h"

namespace {

bool known(const std::vector<std::string> &names, const std::string &key) {
    return std::find(names.begin(), names.end(), key) != names.end();
}

std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return text;
}

bool any_key(const std::string &key) {
    return key == "type" || known(global_keys(), key) || known(section_keys(), key);
}

// True when the line is at fault as a whole, so that its key and value say nothing more.
bool check_bytes(const config_line &line, bool last, report *found) {
    if (line.raw.find('\0') != std::string::npos) {
        found->add("T15", line.number);
        return true;
    }
    if (line.number == 1 && line.raw.starts_with("\xEF\xBB\xBF")) {
        found->add("T16", line.number);
        return true;
    }
    if (line.skipped) return true;
    if (last && !line.ended) {
        found->add("T01", line.number, line.raw);
        return true;
    }
    if (line.raw.ends_with('\r')) {
        found->add("T02", line.number);
        return true;
    }
    if (trimmed(line.raw).starts_with('#')) {
        found->add("T12", line.number);
        return true;
    }
    if (!line.has_equals) {
        found->add("T09", line.number, line.raw);
        return true;
    }
    return false;
}

void check_global_key(const config_line &line, report *found) {
    if (known(global_keys(), line.key)) return;
    const std::string meant = section_key_meant(line.key);
    if (known(section_keys(), line.key)) {
        found->add("T08", line.number, line.key);
        return;
    }
    std::vector<std::string> names = global_keys();
    names.push_back("type");
    const std::string near = nearest_name(line.key, names);
    found->add("T06", line.number,
               line.key + (near.empty() ? "" : " (did you mean " + near + "?)"));
}

void check_section_key(const config_line &line, report *found) {
    if (known(section_keys(), line.key)) return;
    if (known(global_keys(), line.key)) {
        found->add("T07", line.number, line.key);
        return;
    }
    const std::string meant = section_key_meant(line.key);
    if (!meant.empty()) {
        found->add("T10", line.number, line.key + " is taken for " + meant);
        return;
    }
    const std::string near = nearest_name(line.key, section_keys());
    found->add("T06", line.number,
               line.key + (near.empty() ? "" : " (did you mean " + near + "?)"));
}

// True when the key is at fault; its value then means nothing.
bool check_key(const config_line &line, report *found) {
    if (line.key.empty()) {
        found->add("T11", line.number, line.raw);
        return true;
    }
    const std::string bare = trimmed(line.key);
    if (bare != line.key && any_key(bare)) {
        found->add("T03", line.number, line.raw);
        return true;
    }
    if (!any_key(line.key) && any_key(lowered(line.key))) {
        found->add("T14", line.number, line.key);
        return true;
    }
    if (line.key == "type") return false;
    const size_t before = found->findings.size();
    if (line.section < 0) {
        check_global_key(line, found);
    } else {
        check_section_key(line, found);
    }
    return found->findings.size() != before;
}

void check_value(const config_line &line, report *found) {
    const std::string &value = line.value;
    const bool delimiter = section_key_meant(line.key) == "ft_delim" && line.section >= 0;
    if (value.empty() || delimiter) return;  // blanks and quotes may be what a delimiter is
    if (isblank(static_cast<unsigned char>(value.front()))) {
        found->add("T04", line.number, line.raw);
    } else if (isblank(static_cast<unsigned char>(value.back()))) {
        found->add("T05", line.number, line.raw);
    } else if (value.size() > 1 && value.front() == value.back() &&
               (value.front() == '"' || value.front() == '\'')) {
        found->add("T17", line.number, line.raw);
    }
}

void check_doubles(const config_text &text, report *found) {
    std::set<std::pair<int, std::string>> seen;
    for (const config_line &line : text.lines) {
        if (line.skipped || !line.has_equals || line.key == "type") continue;
        const std::string name = line.section < 0 ? line.key : section_key_meant(line.key);
        const bool counts = line.section < 0 ? known(global_keys(), name) : !name.empty();
        if (counts && !line.key.empty() && !seen.insert({line.section, name}).second) {
            found->add("T13", line.number, name);
        }
    }
}

}  // namespace

void check_format(const config_text &text, report *found) {
    for (const config_line &line : text.lines) {
        const bool last = line.number == static_cast<int>(text.lines.size());
        if (check_bytes(line, last, found) || check_key(line, found)) continue;
        check_value(line, found);
    }
    check_doubles(text, found);
}
