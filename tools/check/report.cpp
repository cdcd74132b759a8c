#include "tools/check/report.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

const std::vector<trap> &all_traps() {
#define TRAP(id, level, title, why, fix) {#id, trap_level::level, title, why, fix},
    static const std::vector<trap> traps{
#include "tools/check/traps.def"
    };
#undef TRAP
    return traps;
}

const trap *find_trap(const std::string &id) {
    for (const trap &t : all_traps()) {
        if (strcasecmp(t.id, id.c_str()) == 0) return &t;
    }
    return nullptr;
}

void report::add(const char *id, int line, const std::string &detail) {
    const trap *what = find_trap(id);
    if (what == nullptr) abort();  // a rule names a trap that the table does not have
    if (explained.count(line) == 0) findings.push_back({what, line, detail});
}

void report::explain_lines() {
    for (const finding &f : findings) {
        const std::string id = f.what->id;
        const bool value_counts = id == "T10" || id == "T13";
        if (f.line > 0 && !value_counts) explained.insert(f.line);
    }
}

void sort_findings(report *found) {
    std::stable_sort(found->findings.begin(), found->findings.end(),
                     [](const finding &a, const finding &b) { return a.line < b.line; });
}

int count_level(const report &found, trap_level level) {
    return static_cast<int>(
        std::count_if(found.findings.begin(), found.findings.end(),
                      [level](const finding &f) { return f.what->level == level; }));
}

namespace {

const char *level_word(trap_level level) {
    return level == trap_level::Error ? "error" : "warning";
}

// Length of the UTF-8 sequence that begins at `at`, or 0 when none does.
size_t utf8_length(const std::string &text, size_t at) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(at);
    const size_t length = first < 0x80             ? 1
                          : (first & 0xE0) == 0xC0 ? 2
                          : (first & 0xF0) == 0xE0 ? 3
                          : (first & 0xF8) == 0xF0 ? 4
                                                   : 0;
    if (length == 0 || at + length > text.size() || first == 0xC0 || first == 0xC1) return 0;
    for (size_t i = 1; i < length; i++) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
    }
    if (length == 3 && first == 0xE0 && byte(at + 1) < 0xA0) return 0;
    if (length == 3 && first == 0xED && byte(at + 1) > 0x9F) return 0;
    if (length == 4 && first == 0xF0 && byte(at + 1) < 0x90) return 0;
    if (length == 4 && (first > 0xF4 || (first == 0xF4 && byte(at + 1) > 0x8F))) return 0;
    return length;
}

// A configuration may hold anything, and a terminal obeys control characters: they are shown.
std::string printable(const std::string &text) {
    std::string out;
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte >= 32 && byte != 127) {
            out += c;
            continue;
        }
        char shown[8];
        snprintf(shown, sizeof shown, "\\x%02x", byte);
        out += shown;
    }
    return out;
}

}  // namespace

std::string json_string(const std::string &text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t length = utf8_length(text, i);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += text[i];
        } else if (c < 32 || c == 127) {
            char shown[8];
            snprintf(shown, sizeof shown, "\\u%04x", c);
            out += shown;
        } else if (length == 0) {
            out += "\\ufffd";
        } else {
            out.append(text, i, length);
        }
        i += length == 0 ? 1 : length;
    }
    return out + "\"";
}

std::string format_text(const report &found) {
    std::string out;
    for (const finding &f : found.findings) {
        out += printable(found.path) + ":";
        if (f.line > 0) out += std::to_string(f.line) + ":";
        out += std::string(" ") + level_word(f.what->level) + "[" + f.what->id + "]: ";
        out += f.what->title;
        if (!f.detail.empty()) out += ": " + printable(f.detail);
        out += std::string("\n    why: ") + f.what->why + "\n    fix: " + f.what->fix + "\n";
    }
    const int errors = count_level(found, trap_level::Error);
    const int warnings = count_level(found, trap_level::Warning);
    out += printable(found.path) + ": " + std::to_string(errors) +
           (errors == 1 ? " error, " : " errors, ") + std::to_string(warnings) +
           (warnings == 1 ? " warning\n" : " warnings\n");
    return out;
}

std::string format_json(const report &found) {
    std::string out = "{\"file\": " + json_string(found.path) +
                      ", \"errors\": " + std::to_string(count_level(found, trap_level::Error)) +
                      ", \"warnings\": " + std::to_string(count_level(found, trap_level::Warning)) +
                      ", \"findings\": [";
    bool first = true;
    for (const finding &f : found.findings) {
        out += first ? "\n" : ",\n";
        first = false;
        out += "  {\"line\": " + std::to_string(f.line) + ", \"level\": \"" +
               level_word(f.what->level) + "\", \"id\": \"" + f.what->id +
               "\", \"title\": " + json_string(f.what->title) +
               ", \"detail\": " + json_string(f.detail) + ", \"why\": " + json_string(f.what->why) +
               ", \"fix\": " + json_string(f.what->fix) + "}";
    }
    return out + (first ? "]}\n" : "\n]}\n");
}

std::string format_trap(const trap &t) {
    return std::string(t.id) + " (" + level_word(t.level) + "): " + t.title + "\n\nWhy: " + t.why +
           "\nFix: " + t.fix + "\n";
}
