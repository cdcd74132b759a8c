// A hash table from paths to numbers that does not keep the paths: 8 bytes an entry. A candidate
// is therefore only a candidate, and the caller compares the path where it really stands (in the
// bookmark file, in the list of tailed files). One path may have several entries.
//
// Plain data without a lock: whoever owns the table serialises its use. All zero is an empty
// table. Nothing throws; a table that could not grow says so and the owner falls back to searching.

#pragma once

#include <cstddef>
#include <cstdint>

struct path_index_entry {
    uint32_t mark;   ///< upper half of the path's hash
    int32_t number;  ///< the caller's number, or -1 when the place is free
};

struct path_index {
    path_index_entry *entries;  ///< `places` of them, a power of two; owned
    uint32_t places;
    uint32_t used;
};

/// Hash of the `length` bytes at `path`; the same value for the life of the process only.
uint64_t path_hash(const char *path, size_t length);

/// Adds an entry. False when memory ran out; the table is then unchanged.
bool path_index_add(path_index *index, uint64_t hash, int32_t number);

/// Makes room for `count` entries in one step. False when memory ran out.
bool path_index_reserve(path_index *index, uint32_t count);

/// Walks the entries of `hash`: `*cursor` starts at 0 and is moved on. Returns the next number,
/// in no particular order, or -1 after the last one.
int32_t path_index_next(const path_index *index, uint64_t hash, uint32_t *cursor);

/// Removes the entry of `hash` that holds `number`. False when there is none.
bool path_index_remove(path_index *index, uint64_t hash, int32_t number);

/// Takes 1 from every number above `number`: the sequence that the numbers count lost one place.
void path_index_close_gap(path_index *index, int32_t number);

/// Empties the table and keeps its memory.
void path_index_clear(path_index *index);

/// Frees the table; it is empty afterwards and may be used again.
void path_index_free(path_index *index);
