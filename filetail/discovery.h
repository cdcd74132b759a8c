// Finding the files to tail: one directory, one shell-style pattern, scanned again before every
// pass. Files that appear start where their bookmark, their end or their beginning says; files that
// disappear lose their bookmark.
//
// Only the group's worker calls these (and, before it exists or after it was joined, the thread
// that starts and stops the plugin). The bookmark operations inside take `bm_file_lock`.

#pragma once

#include "filetail/tail_state.h"

/// A new, empty group of `owner`; null when memory ran out. The caller owns it.
ft_bm *new_tail_group(plugin *owner);

/// Frees the group with its files and its list. `t` must have been joined; the handle is freed too.
void free_tail_group(ft_bm *group);

/// Frees one file record that is in no group's list (any more).
void free_fdesc(fdesc *file);

/// Scans the directory again, drops what vanished and verifies every position. Returns the number
/// of directory entries that matched the pattern, or -1 when the directory could not be opened.
int update_file_list(ft_bm *group);

/// Makes sure that the file is tailed. Returns its record, which the group owns, or null when it
/// was not added in this scan: the connection is down, it cannot be read, its path is over 150
/// bytes (reported once), or it is no regular file, the collector's own log or its bookmark file.
fdesc *add_new_file(ft_bm *group, const char *path);
