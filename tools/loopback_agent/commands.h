// What loopback_agent can be told to do.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace loopback {

/// The options of all commands; each uses those that concern it.
struct Options {
    std::string folder;
    std::string process = "LOGRELAY1000:";
    int64_t wait_seconds = 30;
    std::vector<std::string> policies, faults;
    int64_t count = 1, pause_milliseconds = 0;
    bool user = false;
    std::string software = "LOGRELAY1000";
    std::string get, set, value;
    bool notify = false, null_accessor = false;
};

struct Command {
    const char *name, *help;
    /// Prints one JSON object a line on standard output; returns the exit status, 0 or 1.
    int (*run)(const Options &options);
};

extern const std::vector<Command> kCommands;

}  // namespace loopback
