// Opt-in rotation_drain: a file that was renamed inside its directory to a name that the pattern
// does not match is read to its end before the new file under the old name is begun. It is found
// by its inode number at the next scan; no descriptor is held between passes.
//
// Called by the group's worker only, from the scan of its directory.

#pragma once

#include "filetail/tail_state.h"

/// Looks for files of the group whose path names another inode than before (or none), and points
/// `drain` at the renamed predecessor when it still has unread bytes; ends the drains that are
/// done. `directory` ends in "/". Call after the directory was read and before positions are
/// verified.
void rotation_watch(ft_bm *group, const char *directory, const char *filter);
