// The daemon's log: one line per message, to standard output or to a file that standard error is
// redirected to. The file is emptied when it reaches 10 MiB.
//
// logger() and the functions that read may be called on any thread and take no lock of their
// callers; logger_init() and logger_teardown() belong to the main thread. A line is written whole,
// whatever its length. No failure is reported: a log that cannot be written is no reason to stop.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cwchar>

/// Level bits of the mask and of each message.
enum : uint64_t { kLogError = 1, kLogInfo = 2, kLogWarn = 4, kLogDebug = 8, kLogDiag = 16 };

/// Sets the mask and the destination. With `log_file` 0 messages go to standard output. Otherwise
/// they go to the file `log` (null: "/var/log/velmor/siem_collector.log"): its directory is
/// created, an existing file is deleted, and standard error is opened onto it. Only a regular
/// file is ever deleted or emptied (of a link, the link goes); where the path cannot be opened, or
/// names a stream as "/dev/stderr" does, messages go to where standard error pointed before.
void logger_init(uint64_t level, const wchar_t *log, int log_file);

/// Writes one message when its level is in the mask: time stamp, level name, text and a line feed.
/// A message that is masked out still costs a look at the size of the log file; ask log_enabled()
/// first where every event passes, and before work that only serves a message.
void logger(uint64_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/// Returns whether a message of this level would be written.
bool log_enabled(uint64_t level);

/// Replaces the mask; only the low 16 bits are kept.
void set_log_level(uint64_t level);

/// Mask of a level word: error 1, info 3, warn 7, debug 15, diag 31, in lower or upper case only;
/// anything else, null included, gives 0.
uint64_t translate_level(const wchar_t *word);

/// The event library's own level for the same words: 0, 0, 1, 1, 15; anything else gives 0.
uint64_t translate_lib_level(const wchar_t *word);

/// Log sink of the agent bridge; its levels are 1 info, 2 warn, 3 error, else debug.
void lpc_log(int logLevel, const wchar_t *pmessage);

/// Returns the local time as "%b %d %H:%M:%S %Y" in a new 25-byte string that the caller frees.
char *get_time();

/// Empties the log file when it has reached 10 MiB. logger() calls it after every message, also
/// after one that is masked out.
void check_file_size();

/// Flushes standard error and forgets the log path. Later messages are still written.
void logger_teardown();
