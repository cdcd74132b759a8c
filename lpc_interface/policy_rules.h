// How a policy setting becomes a change of the configuration file: pure rules over the parsed file
// (config/conf.h) and no file. The two maps are the state of one enforcement; whoever calls
// anything here but fill_config_entry_map() sees to it that enforcements do not overlap.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "config/conf.h"

using setting_map = std::map<std::wstring, std::wstring>;

/// Policy setting name to configuration key. Looking up a name without a row yields an empty key.
extern setting_map config_entry_map;

/// Section name to the keys and values of a plugin section that is to be written out whole.
extern std::map<std::wstring, setting_map> plugin_map;

/// Puts the eight known names into config_entry_map. Any thread, at any time.
void fill_config_entry_map();

/// Number of plugin sections of the parsed file.
int count_plugins(const key_value_pair_spec *conf);

/// Whether the policy's sections, given by their names in order, describe fewer plugins than the
/// file has. Never when the section of the product itself is among them.
bool plugin_was_deleted(const std::vector<std::wstring> &section_names, int local_plugins);

/// Applies one setting: edits a value of `conf` in place or adds to plugin_map. Returns the number
/// of discrepancies, 0 or 1. `settingValue` is translated in place. A section name or value with a
/// line feed, carriage return or NUL is refused with an ERROR line and counts 0.
int update_config(key_value_pair_spec *conf, std::wstring &name, std::wstring &settingName,
                  std::wstring &settingValue, bool deleted_plugin);

/// Makes the local value the remote one. Returns 1 when that changed it, else 0.
int compare_values(std::wstring remote_key, std::wstring remote_value, wchar_t **local_value,
                   int *local_value_len);

/// Replaces a value (from malloc) in place; throws std::bad_alloc, with the value unchanged.
void update_value(const wchar_t *new_value, wchar_t **old_value, int *old_value_len);

/// The lines of the new file, each without its line feed, in the encoding of the locale.
std::vector<std::string> new_file_lines(const key_value_pair_spec *conf, bool deleted_plugin);

/// Wide text as one line of the log: line feeds, carriage returns and NULs become "?", so that no
/// policy can forge a line.
std::string log_text(const std::wstring &text);
std::string log_text(const wchar_t *text, int length);
