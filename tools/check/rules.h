// The rules of the checker. Each function looks at one side of a configuration and adds what it
// finds; none prints, and none but check_host() looks at anything besides the text.
#pragma once

#include <optional>
#include <string>

#include "tools/check/config_text.h"
#include "tools/check/report.h"

/// Line ends, blanks, unknown, misplaced and double keys.
void check_format(const config_text &text, report *found);

/// Values of the global keys, and those that are missing.
void check_globals(const config_text &text, report *found);

/// Values of the section keys, missing ones, and what sections do to each other.
void check_sections(const config_text &text, report *found);

/// The tailed directories and files of this host, and its rotation rules below
/// `logrotate_directory`. Reads at most 64 KiB of any file.
void check_host(const config_text &text, const std::string &logrotate_directory, report *found);

/// The directory of a section as the daemon uses it: with a "/" at its end; empty without one.
std::string section_directory(const config_text &text, const config_section &section);

/// A section key's value, or an empty string.
std::string section_value(const config_text &text, const config_section &section,
                          const std::string &key);

/// A global key's value, or an empty string.
std::string global_value(const config_text &text, const std::string &key);

/// The number that the daemon reads from a value, or nothing when it begins with no digit.
std::optional<long> number_of(const std::string &value);
