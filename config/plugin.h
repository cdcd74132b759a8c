// The plugin registry: turns the sections of the configuration file into running plugins, and stops
// them. Main thread at start-up and shutdown, the restarting thread at a restart; the lifecycle
// lock keeps the two apart. Faults of a section are logged and skipped; none stops the process.
#pragma once

#include <cstdint>
#include <cwchar>

struct config;
struct key_value_pair;
struct key_value_pair_spec;
struct plugin;

/// Builds and starts all plugins from the pairs at and after `plugin_start` (below 0 counts as 0)
/// and appends them to the list of `conf`. Stops early when is_running() is false. Without any
/// valid section it pauses the execution: the process stays up, idle.
void plugin_config(int plugin_start, key_value_pair_spec *kv, config *conf);

/// Applies one key of a section to the open plugin.
void plugin_add_kv(plugin *p, key_value_pair *pair);

/// Starts a plugin with its worker. A section without directory, pattern or delimiter is reported
/// at ERROR and not started; a plugin that is not a file-tail plugin is not started either.
void plugin_init(plugin *p, const wchar_t *bm_dir, int8_t connected);

/// Ends one plugin: waits for its worker and frees what it owns, but not the record itself. The
/// caller has made is_executing() false before. `signal` is not used.
void plugin_shutdown(plugin *p, int signal);

/// plugin_shutdown() for every plugin in list order, then frees the records and empties the list.
void plugin_shutdown_all(config *conf, int signal);
