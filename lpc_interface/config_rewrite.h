// Replaces the configuration file so that at every instant a whole old or a whole new file stands
// at its path, whatever happens meanwhile.
#pragma once

#include <string>
#include <vector>

/// Writes the lines, each with a line feed, to a new file beside the old one and flushes it; gives
/// it the owner and mode of the old one; links the old one as "PATH.SECONDS"; renames the new one
/// over it; and removes the backup. A symbolic link stays one: the file behind it is replaced. A
/// file that does not exist yet is created.
///
/// Returns true, or false with the old file untouched and the reason in *why. Calls must not
/// overlap for one path.
bool replace_config_file(const std::string &path, const std::vector<std::string> &lines,
                         std::string *why);
