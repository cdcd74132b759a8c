// The longer answers of the checker: the configuration as the daemon reads it, the live check and
// the commented example.
#pragma once

#include <string>

/// Reads `path` with the daemon's own reader and prints every setting as the daemon will hold it.
/// Returns 0, or 66 when the file cannot be read.
int print_effective(const std::string &path);

/// Resolves, connects, probes and checks what the daemon will need on this host. Prints a line for
/// each step as it is done. Returns 0, 66 when the file cannot be read, or 78 when a step failed.
/// The Receiver's answer may take half a minute.
int check_live(const std::string &path);

/// The commented example for --init.
extern const char *const kExampleConfiguration;
