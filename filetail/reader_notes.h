/**
 * What a reader remembers about files that gave it trouble, so that a pass which is repeated at
 * once on account of another file does not repeat the trouble too.
 *
 * Threads: the notes belong to one worker.
 */
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

/** From here on an unfinished event is worth a note. */
constexpr size_t kDryBytes = 64 * 1024;

/** A file as it was when no event could be cut from it. */
struct dry_file {
    struct stat status;
    uint64_t position;
};

struct reader_notes {
    std::unordered_map<ino_t, dry_file> dry;
    std::unordered_map<std::string, int64_t> complaints; /**< path -> second of its last ERROR */
};

/** True when the file is noted as dry at this position and has not changed since. */
bool is_dry(const reader_notes &notes, const struct stat &now, uint64_t position);

/** Notes that no event could be cut from the file, as it was at `status`. */
void note_dry(reader_notes *notes, const struct stat &status, uint64_t position);

/** True when the last complaint about this path was made in another second. */
bool may_complain(reader_notes *notes, const char *path);
