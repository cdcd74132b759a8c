// Stands in for the tailer and the event library under the plugin registry: records what the
// registry asks of them.
#pragma once

#include <string>
#include <vector>

struct plugin;

/// What happened, in order: "init DIR", "worker ends", "free record", "free source ID",
/// "free group". The start of a plugin on the directory "/stops" asks for a stop.
std::vector<std::string> fake_events();

/// What the last plugin was started with: the bookmark directory and whether a connection is open.
std::string fake_started_with();

/// Forgets all events; `starts` tells whether a plugin's start makes a worker.
void fake_reset(bool starts);
