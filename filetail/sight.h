// Looking at a tailed file: its identity, its size and the checksums that tell whether it is still
// the file that a bookmark was written for.
//
// Thread: the worker that owns the file's group. No lock is needed or taken.

#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "filetail/tail_state.h"

inline constexpr uint64_t kHeadBytes = 256;  ///< bytes that a checksum covers

/// Checksum of the first 256 bytes; missing ones count as zeros.
uint32_t head_checksum(int fd);

/// The same; false with errno, and nothing stored, when the file cannot be read. A broken disk must
/// not make another file of it.
bool read_head_checksum(int fd, uint32_t *checksum);

/// Checksum of the 256 bytes that start 257 before `size`. A file too short for that is read from
/// `position`, where a stream would stand that cannot seek there.
uint32_t tail_checksum(int fd, uint64_t size, uint64_t position);

/// Opens a file that may be anything for reading, without waiting and without following it into a
/// terminal. Returns a descriptor of a regular file, or -1 with errno (ENODEV: no regular file).
int open_regular(const char *path);

/// The same for a renamed file, which must stand in the directory itself: links are not followed.
int open_renamed(const char *path);

/// Reads the first 256 bytes; missing ones become zeros. Returns how many the file has.
size_t read_head(int fd, char block[kHeadBytes]);

/// Fills everything in *sight but the checksums.
void take_identity(file_sight *sight, const struct stat &st);

/// True when the status is that of the file that was looked at, changed or not.
bool is_inode(const struct stat &st, const file_sight &sight);

/// True when a file with this status is the one that was looked at, and has not changed since.
bool is_as_seen(const file_sight &sight, const struct stat &st);

enum class sight_result { kSeen, kMissing, kUnknown, kOther };

/// Looks at tail_path(file) and fills its `sight`; a file that has not changed since it was last
/// looked at is not read again. kMissing: there is no such regular file; kUnknown: it could not be
/// opened or read just now, errno says why. With `same_only` a path that no longer leads to the
/// file that was looked at before is kOther, and `sight` stays.
sight_result look_at(fdesc *file, bool same_only);
