// The command line: parsed once at start-up into g_args, reported in the log, freed at the end.
// Main thread only, before any worker runs; afterwards the record is only read (the key
// "daemonize" of the configuration file and the start-up's log mask are stored into it).
#pragma once

#include <cstdint>

inline constexpr char kDefaultConfFile[] = "/opt/Velmor/siem/velmor_siem_collector.conf";

struct program_args {
    int32_t timeout_retry;  ///< attempts to re-establish a connection; reported only
    int32_t timeout_sleep;  ///< seconds between two such attempts; reported only
    int32_t query_retry;    ///< seconds to sleep when there was no data; reported only
    int32_t log_level;      ///< log mask, 0 = taken from the configuration file
    int32_t log_file;       ///< 1 = log to the log file instead of standard output
    int32_t daemon;         ///< 1 = detach from the terminal
    int32_t autolearn;      ///< 1 = ask the Receiver to learn new data sources
    char *conf_file;        ///< path of the configuration file
};

extern program_args g_args;

/// Fills g_args with the defaults and then the options; returns only when all of them are valid.
void args_parse(int argc, char **argv);

/// Prints `msg` (when not null), then the usage text on standard output; exits with status 1.
[[noreturn]] void usage(const char *msg);

/// Makes a relative conf_file absolute, since detaching changes the working directory. The log
/// keeps showing the path as it was given. Returns 0, or -1 with the path unchanged.
int args_anchor_conf_file();

/// Writes the effective values to the log at INFO.
void args_log_program_args();

/// Frees conf_file unless it is the built-in default. A second call does nothing.
void args_teardown();
