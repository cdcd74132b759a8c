// The open bookmark file with its index: finds, writes and removes single records. It knows records
// and slots (record number, from 0) but nothing of tailed files; filetail/bookmark.h does.
//
// The file stays open between operations, and a foreign change is still noticed: the path must lead
// to the same file of the same size, the record in a slot must be the one that is looked for, and
// only a time stamp that is still that of the last own change makes "there is no such record" true
// without reading the file again. Time stamps are asked for no more often than that, since each
// question makes the next write of the same file dearer.
//
// No lock of its own: the caller holds `bm_file_lock` for every call.

#pragma once

#include <cstddef>
#include <cstdint>

#include "filetail/bookmark_format.h"
#include "filetail/path_index.h"

struct bookmark_file {
    int fd = -1;          ///< open for reading and writing, or -1
    uint64_t device = 0;  ///< identity of the open file
    uint64_t inode = 0;
    uint32_t access[3] = {};   ///< mode, owner and group: what may have been changed to keep us out
    int64_t size = 0;          ///< bytes after the last own operation
    int64_t times[2] = {};     ///< st_mtim and st_ctim in ns after the last own change
    bool times_known = false;  ///< false after a change that was not followed by a look at them
    bool indexed = false;      ///< the index holds every record; without memory it may not
    path_index index = {};     ///< path -> slot
};

/// A record as it was found; `record.path` points into `bytes`.
struct bookmark_hit {
    int32_t slot;
    char bytes[kBookmarkRecord];
    bookmark_record record;
};

/// Brings `file` up to date with what stands at `path`: opens it (creating it with mode 0644), or
/// opens it again after a foreign change. Links are not followed. Returns 0, or -1 with errno.
int bookmark_file_open(bookmark_file *file, const char *path);

/// Closes the file and frees the index.
void bookmark_file_close(bookmark_file *file);

/// Finds the first record of `path`. Returns 1 and fills *hit, 0 when there is none, -1 with errno.
int bookmark_file_find(bookmark_file *file, const char *path, size_t path_length,
                       bookmark_hit *hit);

/// Calls visit(arg, record) for every record with a usable path. Returns 0, or -1 with errno.
int bookmark_file_each(const bookmark_file *file,
                       void (*visit)(void *arg, const bookmark_record &record), void *arg);

/// Writes `bytes` over the record in `slot`, or behind the last record when `slot` is -1, in one
/// write. A file whose last record is short is continued at the next multiple of 199. Returns 0, or
/// -1 with errno; a record that could not be appended leaves the file's size as it was.
int bookmark_file_write(bookmark_file *file, int32_t slot, const char bytes[kBookmarkRecord]);

/// Removes the record in hit->slot: later ones move up in one write, then the file is cut. Returns
/// 0, or -1 with errno.
int bookmark_file_remove(bookmark_file *file, const bookmark_hit *hit);
