#include "filetail/bookmark_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

constexpr size_t kScanRecords = 256;  // records read at a time when the whole file is searched

struct free_bytes {
    void operator()(char *bytes) const { std::free(bytes); }
};
using byte_buffer = std::unique_ptr<char, free_bytes>;

off_t offset_of(int32_t slot) {
    return static_cast<off_t>(slot) * kBookmarkRecord;
}

bool same_time(const timespec &a, const timespec &b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool same_file(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           same_time(a.st_mtim, b.st_mtim) && same_time(a.st_ctim, b.st_ctim);
}

// Reads until `size` bytes are there or the file ends.
ssize_t read_at(int fd, char *bytes, size_t size, off_t offset) {
    size_t done = 0;
    while (done < size) {
        const ssize_t got = pread(fd, bytes + done, size - done, offset + static_cast<off_t>(done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        done += static_cast<size_t>(got);
    }
    return static_cast<ssize_t>(done);
}

// One system call unless the kernel stops half-way.
int write_at(int fd, const char *bytes, size_t size, off_t offset) {
    size_t done = 0;
    while (done < size) {
        const ssize_t put =
            pwrite(fd, bytes + done, size - done, offset + static_cast<off_t>(done));
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) {
            if (put == 0) errno = ENOSPC;
            return -1;
        }
        done += static_cast<size_t>(put);
    }
    return 0;
}

// After an own change: what stands there now is known, unless another hand moved the end meanwhile.
void note_own_change(bookmark_file *file, off_t expected_size) {
    if (fstat(file->fd, &file->seen) != 0 || file->seen.st_size != expected_size) file->seen = {};
}

bool is_path(const bookmark_record &record, const char *path, size_t path_length) {
    return record.path_length == path_length && std::memcmp(record.path, path, path_length) == 0;
}

// Calls visit(slot, bytes, length) for every record until it returns false. -1 on a read error.
template <typename Visit>
int for_each_record(int fd, Visit visit) {
    byte_buffer block(static_cast<char *>(std::malloc(kScanRecords * kBookmarkRecord)));
    if (!block) return -1;
    for (int32_t slot = 0;; slot += kScanRecords) {
        const ssize_t got =
            read_at(fd, block.get(), kScanRecords * kBookmarkRecord, offset_of(slot));
        if (got < 0) return -1;
        const size_t size = static_cast<size_t>(got);
        for (size_t at = 0; at < size; at += kBookmarkRecord) {
            const int32_t here = slot + static_cast<int32_t>(at / kBookmarkRecord);
            if (!visit(here, block.get() + at, std::min(kBookmarkRecord, size - at))) return 0;
        }
        if (size < kScanRecords * kBookmarkRecord) return 0;
    }
}

int build_index(bookmark_file *file) {
    path_index_clear(&file->index);
    file->indexed = path_index_reserve(
        &file->index, static_cast<uint32_t>(file->seen.st_size / kBookmarkRecord + 1));
    if (!file->indexed) return 0;
    return for_each_record(file->fd, [file](int32_t slot, const char *bytes, size_t length) {
        const bookmark_record record = bookmark_parse(bytes, length);
        if (record.path_length == 0) return true;
        file->indexed =
            path_index_add(&file->index, path_hash(record.path, record.path_length), slot);
        return file->indexed;
    });
}

// Reads one slot. 1 with the hit filled when a record of any path stands there, 0 when not.
int read_slot(const bookmark_file *file, int32_t slot, bookmark_hit *hit) {
    const ssize_t got = read_at(file->fd, hit->bytes, kBookmarkRecord, offset_of(slot));
    if (got < 0) return -1;
    hit->slot = slot;
    hit->record = bookmark_parse(hit->bytes, static_cast<size_t>(got));
    return hit->record.path_length > 0;
}

int find_by_scan(const bookmark_file *file, const char *path, size_t path_length,
                 bookmark_hit *hit) {
    int32_t found = -1;
    const int result =
        for_each_record(file->fd, [&](int32_t slot, const char *bytes, size_t length) {
            if (!is_path(bookmark_parse(bytes, length), path, path_length)) return true;
            found = slot;
            return false;
        });
    if (result != 0) return -1;
    return found < 0 ? 0 : read_slot(file, found, hit);
}

// Several records of one path can only have been made by hand; the first one counts. *stale is set
// when a slot holds something else than the index says.
int find_by_index(const bookmark_file *file, const char *path, size_t path_length,
                  bookmark_hit *hit, bool *stale) {
    const uint64_t hash = path_hash(path, path_length);
    uint32_t cursor = 0;
    int32_t first = -1;
    for (int32_t slot; (slot = path_index_next(&file->index, hash, &cursor)) >= 0;) {
        if (first >= 0 && slot > first) continue;
        const int filled = read_slot(file, slot, hit);
        if (filled < 0) return -1;
        if (filled && is_path(hit->record, path, path_length)) {
            first = slot;
        } else if (!filled ||
                   path_hash(hit->record.path, hit->record.path_length) >> 32 != hash >> 32) {
            *stale = true;
        }
    }
    if (first < 0) return 0;
    return hit->slot == first ? 1 : read_slot(file, first, hit);
}

int reopen(bookmark_file *file, const char *path) {
    if (file->fd >= 0) close(file->fd);
    file->indexed = false;
    file->fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
    if (file->fd < 0) return -1;
    if (fstat(file->fd, &file->seen) != 0) return -1;
    if (!S_ISREG(file->seen.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    return build_index(file);
}

}  // namespace

int bookmark_file_open(bookmark_file *file, const char *path) {
    struct stat now;
    if (file->fd >= 0 && fstatat(AT_FDCWD, path, &now, AT_SYMLINK_NOFOLLOW) == 0 &&
        same_file(now, file->seen)) {
        return 0;
    }
    if (reopen(file, path) == 0) return 0;
    const int reason = errno;
    bookmark_file_close(file);
    errno = reason;
    return -1;
}

void bookmark_file_close(bookmark_file *file) {
    if (file->fd >= 0) close(file->fd);
    path_index_free(&file->index);
    *file = {};
}

int bookmark_file_find(bookmark_file *file, const char *path, size_t path_length,
                       bookmark_hit *hit) {
    // Kept: a path with a blank never finds its own record, because the path of a record ends at
    // its first blank; such a file gets a further record on each update.
    if (!bookmark_path_findable(path, path_length)) return 0;
    if (file->indexed) {
        bool stale = false;
        const int found = find_by_index(file, path, path_length, hit, &stale);
        if (!stale) return found;
        // Changed by hand within the clock tick of our own last write.
        if (build_index(file) != 0) return -1;
    }
    return find_by_scan(file, path, path_length, hit);
}

int bookmark_file_write(bookmark_file *file, int32_t slot, const char bytes[kBookmarkRecord]) {
    const off_t size = file->seen.st_size;
    const bool append = slot < 0;
    if (append) slot = static_cast<int32_t>((size + kBookmarkRecord - 1) / kBookmarkRecord);
    const off_t offset = offset_of(slot);
    if (write_at(file->fd, bytes, kBookmarkRecord, offset) != 0) {
        int reason = errno;
        if (append && ftruncate(file->fd, size) != 0) reason = EIO;
        note_own_change(file, size);
        errno = reason;
        return -1;
    }
    note_own_change(file, std::max<off_t>(size, offset + kBookmarkRecord));
    if (append && file->indexed) {
        const bookmark_record record = bookmark_parse(bytes, kBookmarkRecord);
        if (record.path_length > 0) {
            file->indexed =
                path_index_add(&file->index, path_hash(record.path, record.path_length), slot);
        }
    }
    return 0;
}

int bookmark_file_remove(bookmark_file *file, const bookmark_hit *hit) {
    const off_t gap = offset_of(hit->slot);
    const off_t size = std::max(file->seen.st_size, gap);
    const off_t rest = std::max<off_t>(size - gap - kBookmarkRecord, 0);
    if (rest > 0) {
        const size_t bytes = static_cast<size_t>(rest);
        byte_buffer tail(static_cast<char *>(std::malloc(bytes)));
        if (!tail) return -1;
        const ssize_t got = read_at(file->fd, tail.get(), bytes, gap + kBookmarkRecord);
        if (got != static_cast<ssize_t>(bytes)) {
            if (got >= 0) errno = EIO;
            return -1;
        }
        if (write_at(file->fd, tail.get(), bytes, gap) != 0) {
            file->seen = {};  // the index no longer tells what stands where
            return -1;
        }
    }
    // Cutting at the gap, not 199 bytes before the end, spares the record before a short last one.
    if (ftruncate(file->fd, gap + rest) != 0) {
        file->seen = {};
        return -1;
    }
    note_own_change(file, gap + rest);
    path_index_remove(&file->index, path_hash(hit->record.path, hit->record.path_length),
                      hit->slot);
    path_index_close_gap(&file->index, hit->slot);
    return 0;
}
