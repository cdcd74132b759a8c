/**
 * Command line of a tool: a table of long options, parsed in order, and its usage text.
 *
 * Used on the main thread before anything else runs. A bad option names itself on standard error
 * and ends the tool with status 64, the conventional status of a usage error.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tools {

inline constexpr int kUsageError = 64;

/** One option. `store` gets the argument (null when `argument` is null); false refuses it. */
struct option_row {
    const char *name;     /**< without the two dashes */
    const char *argument; /**< what stands for the argument in the usage text, null when none */
    const char *help;
    std::function<bool(const char *)> store;
};

/** The tool as its usage text shows it. */
struct tool_usage {
    const char *name;
    const char *summary;
    const char *epilogue; /**< text behind the options, may be empty */
};

/**
 * Stores every option of the command line; "--name value" and "--name=value" are the same. Prints
 * the usage text for --help and exits 0; exits with kUsageError for an unknown option, a missing
 * or refused argument, or a word that is no option.
 */
void parse_options(const tool_usage &usage, const std::vector<option_row> &rows, int argc,
                   char **argv);

/** Prints "NAME: MESSAGE" to standard error and exits with kUsageError. */
[[noreturn]] void usage_error(const tool_usage &usage, const std::string &message);

/** Reads a whole decimal number within [low, high]; false when `text` is anything else. */
bool parse_number(const char *text, int64_t low, int64_t high, int64_t *value);

/** Reads a whole unsigned number, decimal or with 0x hexadecimal. */
bool parse_unsigned(const char *text, uint64_t high, uint64_t *value);

/** Row makers for the common kinds. The targets outlive the parsing. */
option_row flag_row(const char *name, bool *target, const char *help);
option_row text_row(const char *name, const char *argument, std::string *target, const char *help);
option_row number_row(const char *name, const char *argument, int64_t low, int64_t high,
                      int64_t *target, const char *help);

/** Opens what is closed of the descriptors 0 to 2, so that no socket takes their place and gets
 * what is meant for standard output. */
void open_standard_descriptors();

/** Splits at each separator; empty pieces are kept. */
std::vector<std::string> split(std::string_view text, char separator);

}  // namespace tools
