// Opt-in rotation_drain: a file that was renamed inside its directory to a name that the pattern
// does not match is read to its end before the new file under the old name is begun. No descriptor
// is held between passes. A file that was seen before is found again by its inode number; one that
// was renamed while no daemon ran, by what its record says of its content (identity.h). The record
// stays under the old name meanwhile and tells the next daemon where to go on.
//
// Called by the group's worker only, from the scan of its directory.

#pragma once

#include "filetail/tail_state.h"

/// Looks for files of the group whose path names another inode than before (or none), points
/// `drain` at the renamed predecessor, and ends the drains that are done. `directory` ends in "/".
/// Call after the directory was read and before positions are verified.
void rotation_watch(ft_bm *group, const char *directory, const char *filter);

/// Searches for the predecessors of the files that `moved` says to have one, and then looks their
/// positions up again. Call after positions were verified. A file that is still `moved` afterwards
/// waits for the next scan.
void rotation_resolve(ft_bm *group, const char *directory, const char *filter);
