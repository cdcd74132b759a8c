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

/// Checksum of the 256 bytes that start 257 before `size`. A file too short for that is read from
/// `position`, where a stream would stand that cannot seek there.
uint32_t tail_checksum(int fd, uint64_t size, uint64_t position);

/// Opens a file that may be anything for reading, without waiting and without following it into a
/// terminal. Returns a descriptor of a regular file, or -1 with errno (ENODEV: no regular file).
int open_regular(const char *path);

/// True when a file with this status is the one that was looked at, and has not changed since.
bool is_as_seen(const file_sight &sight, const struct stat &st);

enum class sight_result { kSeen, kMissing, kUnknown };

/// Looks at tail_path(file) and fills its `sight`; a file that has not changed since it was last
/// looked at is not read again. kMissing: there is no such regular file; kUnknown: it could not be
/// opened just now, errno says why.
sight_result look_at(fdesc *file);

/// True when the file began with fewer than 256 bytes at its last bookmark and still begins with
/// them: `head` is the checksum of `location` or more of its first 255 bytes, padded with zeros.
bool is_grown_small_file(const char *path, uint32_t head, uint64_t location);
