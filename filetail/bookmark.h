// The bookmark store: how far every tailed file has been sent, in one file that outlives the
// daemon. Its records are those of bookmark_format.h; an index in memory finds them, so that no
// operation costs more with more records, but the file stays the truth: a record that was changed
// or removed by hand, or a file that was cut, replaced or deleted, is noticed at the next
// operation.
//
// Any thread may call. Every operation holds `bm_file_lock` while it touches the bookmark file;
// checksums of tailed files are computed before the lock is taken and messages are logged after
// it is released. No caller may hold `ruv_lock`: no path holds both.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>

#include "core/spinlock.h"
#include "filetail/bookmark_format.h"
#include "filetail/tail_state.h"

extern lock_word bm_file_lock;
extern char bm_filename[256];  ///< path of the bookmark file; written by bookmark_set_directory()

/// Sets the bookmark file to "ft_bookmark" in `directory`; an earlier file is closed. A path of
/// more than 255 bytes makes every operation fail as an open error. Call while no worker runs; the
/// directory that is set already may be set again at any time.
void bookmark_set_directory(const wchar_t *directory);

/// Closes the bookmark file and frees the index. The store opens it again when it is used again.
void bookmark_teardown();

/// Opt-in small_file_guard: with `on`, a file that had fewer than 256 bytes at its last bookmark
/// and still begins with them is resumed after it has grown. Any thread, at any time.
void bookmark_guard_small_files(bool on);

/// Opt-in rotation_drain: with `on`, a look-up that meets another file than the record's, or than
/// the one seen before, sets `moved` and changes no position until the directory was searched; see
/// rotation.h. Any thread, at any time.
void bookmark_follow_renames(bool on);

/// Writes the record of `bm`: its location and the checksums of the open file. Returns 0, or -1
/// when the record could not be written; the location in memory then counts until a write succeeds.
/// Neither form moves the position of `f` or `fd`. A file of fewer than 257 bytes has no room for a
/// tail checksum, which is then that of the 256 bytes at the current position (missing ones are 0).
int update_bookmark(FILE *f, fdesc *bm);
int update_bookmark_fd(int fd, fdesc *bm);

/// The same for a reader that works with pread: `position` is where its stream would stand, that
/// is, at the end of the bytes read for the first event of a batch, and at the start of the event
/// for each later one (the position returns to the location after every event).
int update_bookmark_at(int fd, fdesc *bm, uint64_t position);

/// The same for a file that get_bookmark() has just looked at, with the checksums of that look; the
/// file is not read again.
int update_bookmark_as_seen(fdesc *bm);

/// Looks the record of `bm` up and sets its location to where reading must go on. Returns 1 when a
/// record was found; 0 when there is none, or no such file (any more); -1 with errno when the file
/// or the bookmark file could not be opened just now: the record, if any, is still there, and the
/// location in memory is used. The same goes for a location that could not be saved. -1 with ESTALE
/// and `moved` set: nothing can be said before a search for the renamed file.
int get_bookmark(fdesc *bm);

/// Calls visit(arg, record) for every usable record, under `bm_file_lock`: the visitor must not
/// call the store. Returns 0, or -1 when the bookmark file could not be read.
int bookmark_each(void (*visit)(void *arg, const bookmark_record &record), void *arg);

/// Removes the record of `path`, if any; later records move up in one write and keep their order.
/// Returns 0, or -1 when the bookmark file could not be opened or changed.
int delete_bookmark(const char *path);

/// get_bookmark() for every file of the group, then delete_bookmark() for those without a record.
void verify_bookmark_file(ft_bm *group);

/// True when the file with these numbers is the bookmark file itself. Any thread.
bool is_bookmark_file(dev_t device, ino_t inode);
