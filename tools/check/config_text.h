// A configuration file as its writer sees it: numbered lines, beside what the daemon's own reader
// makes of each. Every rule of the checker works on this and never parses on its own.
#pragma once

#include <string>
#include <vector>

/// One line of the file.
struct config_line {
    int number;         ///< from 1
    std::string raw;    ///< its bytes without the line feed
    std::string key;    ///< as the daemon reads it
    std::string value;  ///< as the daemon reads it
    bool skipped;       ///< a comment or a line of blanks: the daemon drops it
    bool has_equals;    ///< holds a "="
    bool ended;         ///< ends in a line feed
    int section;        ///< index of its section; -1 before the first
};

/// One section: its "type" line and the lines behind it.
struct config_section {
    int number;              ///< line of "type"
    std::string type;        ///< the value of "type"
    std::vector<int> lines;  ///< indices of its lines that the daemon keeps, "type" excluded
};

struct config_text {
    std::string path;
    std::vector<config_line> lines;
    std::vector<config_section> sections;
};

/// Reads a file. Returns false when it cannot be read; `reason` then says why.
bool config_text_read(const std::string &path, config_text *text, std::string *reason);

/// The line that decides a global key (the last one), or null.
const config_line *global_line(const config_text &text, const std::string &key);

/// The line of a section that decides a section key (the last whose key is taken for it), or null.
const config_line *section_line(const config_text &text, const config_section &section,
                                const std::string &key);

/// The section key that the daemon takes `key` for: the first name that begins with it; empty when
/// there is none.
std::string section_key_meant(const std::string &key);

/// All global keys, and all section keys in the daemon's order.
const std::vector<std::string> &global_keys();
const std::vector<std::string> &section_keys();

/// The name of a list that is nearest to a word by the number of letters to change, or an empty
/// string when none is near.
std::string nearest_name(const std::string &word, const std::vector<std::string> &names);
