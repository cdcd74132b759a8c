// Stands in for the tailer and the event library under the plugin registry: records what the
// registry asks of them.
#pragma once

#include <string>
#include <vector>

struct plugin;

/// What happened, in order: "init DIR", "worker ends", "free record", "free source ID",
/// "free group".
std::vector<std::string> fake_events();

/// Forgets all events; `starts` tells whether a plugin's start makes a worker.
void fake_reset(bool starts);
