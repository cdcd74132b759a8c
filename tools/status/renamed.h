// Files that a rotation renamed and that are not sent to their end (rotation_drain): their position
// stands in the bookmark file under the old name. The daemon knows most of them by their inode
// numbers; a bystander knows them as a daemon that was started afterwards would, by their content.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/status/bookmarks.h"

/// A bookmark whose position belongs to no file under its path.
struct left_behind {
    std::string path;
    stored_position position;
};

struct renamed_file {
    std::string path;
    std::string rest_of;  ///< the path that the bookmark has
    uint64_t size;
    long changed;  ///< time of its last change, seconds since 1970
};

/// Searches a directory, whose path ends in "/", for regular files that the pattern does not match
/// and that the positions were reached in. Returns those with something behind the position, at
/// most one for each bookmark: of several, the longest.
std::vector<renamed_file> find_renamed(const std::string &directory, const std::string &filter,
                                       const std::vector<left_behind> &bookmarks);
