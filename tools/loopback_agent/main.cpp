// loopback_agent: plays the management agent for a collector on this host, for tests, demos and
// those who integrate. docs/lpc.md shows it at work.
#include <cstring>

#include "tools/common/options.h"
#include "tools/loopback_agent/commands.h"
#include "tools/loopback_agent/prepare.h"

namespace {

using namespace loopback;

std::string command_list() {
    std::string text = "\nCommands:\n";
    for (const Command &command : kCommands) {
        std::string name = std::string("  ") + command.name;
        name.resize(14, ' ');
        text += name + command.help + "\n";
    }
    return text;
}

std::vector<tools::option_row> option_rows(Options *options) {
    using namespace tools;
    return {
        text_row("dir", "DIR", &options->folder, "folder of the agent's libraries and sockets"),
        text_row("process", "ID", &options->process,
                 "beginning of the process identifier (LOGRELAY1000:)"),
        number_row("wait", "SECONDS", 0, 3600, &options->wait_seconds,
                   "how long to wait for the process (30)"),
        {"policy", "FILE", "policy to push; may be given several times",
         [options](const char *file) {
             options->policies.emplace_back(file);
             return true;
         }},
        number_row("count", "N", 1, 1000000, &options->count, "number of pushes (1)"),
        number_row("pause", "MS", 0, 60000, &options->pause_milliseconds, "pause after a push (0)"),
        flag_row("user", &options->user, "push as a user policy"),
        flag_row("null-accessor", &options->null_accessor, "push without a way to read the policy"),
        text_row("software", "ID", &options->software, "software identifier (LOGRELAY1000)"),
        flag_row("notify", &options->notify, "update: notify"),
        text_row("get", "NAME", &options->get, "update: ask for an information"),
        text_row("set", "NAME", &options->set, "update: set an information"),
        text_row("value", "TEXT", &options->value, "update: the value to begin with"),
        {"fault", "FAULT", "missing-symbol, initialize, enable or slow-load=SECONDS",
         [options](const char *fault) {
             options->faults.emplace_back(fault);
             return is_fault(fault);
         }},
    };
}

}  // namespace

int main(int argc, char **argv) {
    const std::string commands = command_list();
    const tools::tool_usage usage{"loopback_agent COMMAND", "plays the management agent",
                                  commands.c_str()};
    Options options;
    const auto rows = option_rows(&options);
    const char *word = argc > 1 ? argv[1] : "";
    for (const Command &command : kCommands) {
        if (strcmp(word, command.name) != 0) continue;
        tools::parse_options(usage, rows, argc - 1, argv + 1);
        if (options.folder.empty()) tools::usage_error(usage, "--dir is missing");
        return command.run(options);
    }
    tools::parse_options(usage, rows, argc, argv);  // --help, or a word that is no command
    tools::usage_error(usage, "a command is missing");
}
