// What a file-tail plugin knows about the files it tails. Data only: the operations stand in
// discovery.h (files come and go), bookmark.h (positions) and reader.h (events).
//
// A group and all its files belong to one worker thread; the thread that started the plugin may
// touch them only before the worker exists and after it has been joined. Nothing here is locked.

#pragma once

#include <pthread.h>

#include <cstdint>

struct plugin;
struct ft_bm;
struct tail_lookup;

/// What the file system said about a file when its checksums were last computed. While it says
/// the same again, and said it long enough after the last change, the checksums still hold.
struct file_sight {
    uint64_t device;
    uint64_t inode;
    uint64_t size;       ///< bytes
    int64_t changed_ns;  ///< st_ctim, nanoseconds since 1970
    int64_t written_ns;  ///< st_mtim, nanoseconds since 1970
    uint32_t head;       ///< checksum of the first 256 bytes at that moment
    uint32_t tail;       ///< checksum of the 256 bytes that end one byte before the end
};

/// `d` of a file of which only its record and perhaps a renamed file are known (rotation_drain).
inline constexpr uint8_t kOnlyRecorded = 2;

/// One tailed file. Owned by its group; made zeroed, freed with free_fdesc().
struct fdesc {
    char *n;     ///< full path, directory and name; owned
    ft_bm *p;    ///< the group that owns this file
    uint64_t l;  ///< location: bytes whose events have been sent
    uint32_t h;  ///< head checksum of the record, as last written or found
    uint32_t t;  ///< tail checksum of the record, as last written or found
    uint8_t d;   ///< 1 = not yet met in the current scan of the directory; or kOnlyRecorded

    uint8_t known;     ///< 1 = `l`, `h` and `t` were written to the record or found in it
    uint8_t unsaved;   ///< 1 = the last bookmark write failed: `l` is newer than the record
    uint8_t unlisted;  ///< 1 = the last look-up found no record
    uint8_t settled;   ///< 1 = `sight` was taken well after the file's last change
    uint8_t at_end;    ///< set by the reader: 1 = it stopped because no complete event was left
    file_sight sight;

    // Opt-in rotation_drain; all zero without it.
    char *drain;     ///< renamed file whose unread rest comes first, else null; owned
    uint8_t moved;   ///< 1 = the position belongs to a file that is not at the path (any more):
                     ///< nothing is read before the directory has been searched for it
    uint8_t final;   ///< 1 = nothing will be added to `drain`: text without a delimiter is an event
    uint8_t failed;  ///< set by the reader: 1 = `drain` could not be read just now
    uint8_t sought;  ///< 1 = what the record of the next two words was written for has no rest
    uint32_t sought_h;
    uint64_t sought_l;
    int64_t failing_since;  ///< seconds of the monotonic clock; 0 = nothing fails
};

/// The file to read for `file`: a renamed predecessor while its rest is being drained.
inline const char *tail_path(const fdesc *file) {
    return file->drain ? file->drain : file->n;
}

/// The group of one worker. Made with new_tail_group(), freed with free_tail_group() (discovery.h).
struct ft_bm {
    pthread_t *t;  ///< the worker, null when none was started; freed by whoever joins it
    plugin *p;     ///< the owning plugin; not owned
    fdesc **f;     ///< the tailed files in the order they were first found; owned
    int32_t fc;    ///< number of files

    int32_t room;         ///< entries that `f` can hold
    tail_lookup *lookup;  ///< discovery's tables for finding a path in `f`; owned
    uint8_t adopted;      ///< rotation_drain: records without a file were looked through
};
