// Telling by its content whether a file is the one that a bookmark was written for, when its path
// or its beginning has changed since.
//
// Thread: any; pure reading. No lock.

#pragma once

#include <cstdint>

#include "filetail/tail_state.h"

/// True when the file began with fewer than 256 bytes at its last bookmark and still begins with
/// them: `head` is the checksum of its first n bytes, padded with zeros, for an n from `location`
/// to 255. Never fewer than `location`: such a checksum was taken after the file had been emptied
/// under the reader, and what stands there now was not sent.
bool is_grown_small_file(const char *path, uint32_t head, uint64_t location);

/// True when an open file still begins with what it held at the look `sight`, as far as the first
/// 256 bytes go: it may only have grown since.
bool begins_as_seen(int fd, const file_sight &sight);

/// True when an open file of `size` bytes under another name holds what the position of `bm` was
/// reached in, and perhaps more behind it. A file of over 256 bytes must begin with the same 256
/// bytes and hold, at the position or behind it, the piece that the tail checksum covers: many logs
/// begin alike. A smaller one must be what it was, byte for byte; a small file that has grown is
/// not known by so little. A stop ends the comparison with false.
bool is_predecessor(int fd, uint64_t size, const fdesc *bm);
