#include "filetail/bookmark_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
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

int64_t nanoseconds(const timespec &t) {
    return t.tv_sec * int64_t{1'000'000'000} + t.tv_nsec;
}

// True when the path still leads to the file that is open, as far as that can be told without its
// time stamps.
bool is_same_file(const bookmark_file *file, const char *path) {
    constexpr unsigned kMask =
        STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID | STATX_INO | STATX_SIZE;
    struct statx now;
    return statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, kMask, &now) == 0 &&
           now.stx_ino == file->inode &&
           makedev(now.stx_dev_major, now.stx_dev_minor) == file->device &&
           static_cast<int64_t>(now.stx_size) == file->size && now.stx_mode == file->access[0] &&
           now.stx_uid == file->access[1] && now.stx_gid == file->access[2];
}

// Takes everything that is_same_file() and is_unchanged() compare.
void note_status(bookmark_file *file, const struct stat &st) {
    file->device = st.st_dev;
    file->inode = st.st_ino;
    file->access[0] = st.st_mode;
    file->access[1] = st.st_uid;
    file->access[2] = st.st_gid;
    file->size = st.st_size;
    file->times[0] = nanoseconds(st.st_mtim);
    file->times[1] = nanoseconds(st.st_ctim);
    file->times_known = true;
}

bool is_unchanged(const bookmark_file *file) {
    struct stat st;
    return file->times_known && fstat(file->fd, &st) == 0 && st.st_size == file->size &&
           nanoseconds(st.st_mtim) == file->times[0] && nanoseconds(st.st_ctim) == file->times[1];
}

// After a failure half-way: what stands in the file must be found out anew.
void distrust(bookmark_file *file) {
    file->inode = 0;
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

// Reads all records again; their slots are then those of the file as it stands now.
int build_index(bookmark_file *file) {
    struct stat st;
    if (fstat(file->fd, &st) != 0) return -1;
    note_status(file, st);
    path_index_clear(&file->index);
    file->indexed =
        path_index_reserve(&file->index, static_cast<uint32_t>(st.st_size / kBookmarkRecord + 1));
    if (!file->indexed) return 0;
    return for_each_record(file->fd, [file](int32_t slot, const char *bytes, size_t length) {
        const bookmark_record record = bookmark_parse(bytes, length);
        if (record.path_length == 0) return true;
        file->indexed =
            path_index_add(&file->index, path_hash(record.path, record.path_length), slot);
        return file->indexed;
    });
}

// Reads one slot. 1 with the hit filled when it holds a record of `path`, 0 when not.
int read_slot(const bookmark_file *file, int32_t slot, const char *path, size_t path_length,
              bookmark_hit *hit) {
    const ssize_t got = read_at(file->fd, hit->bytes, kBookmarkRecord, offset_of(slot));
    if (got < 0) return -1;
    hit->slot = slot;
    return bookmark_parse_of(hit->bytes, static_cast<size_t>(got), path, path_length, &hit->record);
}

int find_by_scan(const bookmark_file *file, const char *path, size_t path_length,
                 bookmark_hit *hit) {
    int32_t found = -1;
    const int result =
        for_each_record(file->fd, [&](int32_t slot, const char *bytes, size_t length) {
            if (!bookmark_parse_of(bytes, length, path, path_length, &hit->record)) return true;
            found = slot;
            return false;
        });
    if (result != 0) return -1;
    return found < 0 ? 0 : read_slot(file, found, path, path_length, hit);
}

// Several records of one path can only have been made by hand; the first one counts.
int find_by_index(const bookmark_file *file, const char *path, size_t path_length,
                  bookmark_hit *hit) {
    const uint64_t hash = path_hash(path, path_length);
    uint32_t cursor = 0;
    int32_t first = -1;
    for (int32_t slot; (slot = path_index_next(&file->index, hash, &cursor)) >= 0;) {
        if (first >= 0 && slot > first) continue;
        const int filled = read_slot(file, slot, path, path_length, hit);
        if (filled < 0) return -1;
        if (filled) first = slot;
    }
    if (first < 0) return 0;
    return hit->slot == first ? 1 : read_slot(file, first, path, path_length, hit);
}

// A record that does not fit leaves nothing behind.
int append(bookmark_file *file, const char bytes[kBookmarkRecord]) {
    const int32_t slot = static_cast<int32_t>((file->size + kBookmarkRecord - 1) / kBookmarkRecord);
    if (write_at(file->fd, bytes, kBookmarkRecord, offset_of(slot)) != 0) {
        const int reason = errno;
        if (ftruncate(file->fd, file->size) != 0) distrust(file);
        file->times_known = false;
        errno = reason;
        return -1;
    }
    struct stat st;
    if (fstat(file->fd, &st) != 0 || st.st_size != offset_of(slot + 1)) {
        distrust(file);  // another hand wrote meanwhile
        return 0;
    }
    note_status(file, st);
    const bookmark_record record = bookmark_parse(bytes, kBookmarkRecord);
    // A path that is never looked up was appended without a look at the time stamps before.
    file->times_known = record.path_length > 0;
    if (file->indexed && record.path_length > 0) {
        file->indexed =
            path_index_add(&file->index, path_hash(record.path, record.path_length), slot);
    }
    return 0;
}

int reopen(bookmark_file *file, const char *path) {
    if (file->fd >= 0) close(file->fd);
    file->indexed = false;
    file->fd = open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0644);
    if (file->fd < 0) return -1;
    struct stat st;
    if (fstat(file->fd, &st) != 0) return -1;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    return build_index(file);
}

}  // namespace

int bookmark_file_open(bookmark_file *file, const char *path) {
    if (file->fd >= 0 && is_same_file(file, path)) return 0;
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
    if (!file->indexed) return find_by_scan(file, path, path_length, hit);
    const int found = find_by_index(file, path, path_length, hit);
    // Kept: a path with a blank never finds its own record, because no record's path holds one;
    // such a file gets a further record on each update.
    if (found != 0 || !bookmark_path_findable(path, path_length)) return found;
    if (is_unchanged(file)) return 0;
    if (build_index(file) != 0) return -1;
    return file->indexed ? find_by_index(file, path, path_length, hit)
                         : find_by_scan(file, path, path_length, hit);
}

int bookmark_file_each(const bookmark_file *file,
                       void (*visit)(void *arg, const bookmark_record &record), void *arg) {
    return for_each_record(file->fd, [&](int32_t, const char *bytes, size_t length) {
        const bookmark_record record = bookmark_parse(bytes, length);
        if (record.path_length > 0) visit(arg, record);
        return true;
    });
}

int bookmark_file_write(bookmark_file *file, int32_t slot, const char bytes[kBookmarkRecord]) {
    if (slot < 0) return append(file, bytes);
    const int64_t offset = offset_of(slot);
    file->times_known = false;
    if (write_at(file->fd, bytes, kBookmarkRecord, offset) != 0) {
        distrust(file);
        return -1;
    }
    file->size = std::max<int64_t>(file->size, offset + kBookmarkRecord);
    return 0;
}

int bookmark_file_remove(bookmark_file *file, const bookmark_hit *hit) {
    const int64_t gap = offset_of(hit->slot);
    const int64_t rest = std::max<int64_t>(file->size - gap - kBookmarkRecord, 0);
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
            distrust(file);
            return -1;
        }
    }
    file->times_known = false;
    // Cutting at the gap, not 199 bytes before the end, spares the record before a short last one.
    if (ftruncate(file->fd, gap + rest) != 0) {
        distrust(file);
        return -1;
    }
    file->size = gap + rest;
    path_index_remove(&file->index, path_hash(hit->record.path, hit->record.path_length),
                      hit->slot);
    path_index_close_gap(&file->index, hit->slot);
    return 0;
}
