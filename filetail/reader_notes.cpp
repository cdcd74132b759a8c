#include "filetail/reader_notes.h"

#include <time.h>

namespace {

/// A table that has grown beyond this is emptied: its cases are rare, and forgetting one costs a
/// repetition.
constexpr size_t kMostNotes = 1000;

bool same_time(const timespec &a, const timespec &b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool unchanged(const struct stat &then, const struct stat &now) {
    return then.st_dev == now.st_dev && then.st_size == now.st_size &&
           same_time(then.st_mtim, now.st_mtim) && same_time(then.st_ctim, now.st_ctim);
}

}  // namespace

bool is_dry(const reader_notes &notes, const struct stat &now, uint64_t position) {
    if (notes.dry.empty()) return false;
    const auto known = notes.dry.find(now.st_ino);
    return known != notes.dry.end() && known->second.position == position &&
           unchanged(known->second.status, now);
}

void note_dry(reader_notes *notes, const struct stat &status, uint64_t position) {
    if (notes->dry.size() >= kMostNotes) notes->dry.clear();
    notes->dry[status.st_ino] = {status, position};
}

bool may_complain(reader_notes *notes, const char *path) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (notes->complaints.size() >= kMostNotes) notes->complaints.clear();
    const auto [known, fresh] = notes->complaints.try_emplace(path, now.tv_sec);
    if (!fresh && known->second == now.tv_sec) return false;
    known->second = now.tv_sec;
    return true;
}
