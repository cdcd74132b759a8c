// What the checker found: traps with their texts, findings, and the forms that they are shown in.
#pragma once

#include <set>
#include <string>
#include <vector>

enum class trap_level { Error, Warning };

/// One trap of the configuration format.
struct trap {
    const char *id;  ///< "T01"
    trap_level level;
    const char *title;  ///< what is the matter, half a line
    const char *why;    ///< what the daemon does with it
    const char *fix;    ///< what to do
};

/// One finding: a trap at a line.
struct finding {
    const trap *what;
    int line;            ///< from 1; 0 = the file as a whole
    std::string detail;  ///< the value at fault, or what was expected; may be empty
};

/// All traps in the order of their numbers.
const std::vector<trap> &all_traps();

/// The trap of an id such as "T05" (any case), or null.
const trap *find_trap(const std::string &id);

/// The findings of one file.
struct report {
    std::string path;
    std::vector<finding> findings;
    std::set<int> explained;  ///< lines whose form is at fault: their value means nothing more

    /// Adds a finding, unless the line was explained. `id` must be one of all_traps().
    void add(const char *id, int line, const std::string &detail = "");

    /// Takes the lines of all findings so far as explained, but for those that are read as meant.
    void explain_lines();
};

/// Puts the findings into the order of their lines.
void sort_findings(report *found);

/// Number of findings of a level.
int count_level(const report &found, trap_level level);

/// "file:line: error[T05]: title: detail" with the reason and the fix below, and a closing line.
std::string format_text(const report &found);

/// One JSON object: file, errors, warnings, findings.
std::string format_json(const report &found);

/// The page of one trap for --explain.
std::string format_trap(const trap &t);

/// A text as a JSON string with its quotes; bytes that are no UTF-8 become U+FFFD.
std::string json_string(const std::string &text);
