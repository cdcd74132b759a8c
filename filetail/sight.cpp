#include "filetail/sight.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "core/utils.h"
#include "filetail/owned_descriptor.h"

namespace {

// A file's time stamps move in steps of the kernel's clock tick: a change right after a look may
// leave them as they were. A look counts as final only when the last change is this much older.
constexpr int64_t kSettledNs = 1'000'000'000;
// Kept: the range of the tail checksum begins 257 bytes before the end, so that it leaves the last
// byte out; records written before must stay comparable.
constexpr uint64_t kTailBytes = 257;

int64_t nanoseconds(const timespec &t) {
    return t.tv_sec * int64_t{1'000'000'000} + t.tv_nsec;
}

// Two of these reads go with every event. In a process with threads the C library's pread() is a
// point of cancellation, which costs as much as a third of the read itself; nobody cancels here.
ssize_t plain_pread(int fd, char *bytes, size_t size, off_t offset) {
#ifdef __LP64__
    return syscall(SYS_pread64, fd, bytes, size, offset);
#else
    return pread(fd, bytes, size, offset);
#endif
}

// Returns how many bytes there are, or -1 with errno; missing ones become zeros.
ssize_t read_block(int fd, char block[kHeadBytes], uint64_t offset) {
    size_t done = 0;
    bool failed = false;
    while (done < kHeadBytes) {
        const ssize_t got =
            plain_pread(fd, block + done, kHeadBytes - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        failed = got < 0;
        if (got <= 0) break;
        done += static_cast<size_t>(got);
    }
    std::memset(block + done, 0, kHeadBytes - done);
    return failed ? -1 : static_cast<ssize_t>(done);
}

uint32_t checksum_at(int fd, uint64_t offset) {
    char block[kHeadBytes];
    read_block(fd, block, offset);
    return computeChecksum(block);
}

int open_checked(const char *path, int more_flags) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | more_flags);
    if (fd < 0) return -1;
    struct stat st;
    const int reason = fstat(fd, &st) == 0 ? ENODEV : errno;
    if (reason == ENODEV && S_ISREG(st.st_mode)) return fd;
    close(fd);
    errno = reason;
    return -1;
}

bool is_settled(const file_sight &sight) {
    timespec now;
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return nanoseconds(now) - sight.changed_ns >= kSettledNs;
}

}  // namespace

void take_identity(file_sight *sight, const struct stat &st) {
    sight->device = st.st_dev;
    sight->inode = st.st_ino;
    sight->size = static_cast<uint64_t>(st.st_size);
    sight->changed_ns = nanoseconds(st.st_ctim);
    sight->written_ns = nanoseconds(st.st_mtim);
}

bool is_inode(const struct stat &st, const file_sight &sight) {
    return st.st_ino == sight.inode && st.st_dev == sight.device;
}

bool is_as_seen(const file_sight &sight, const struct stat &st) {
    return sight.inode == st.st_ino && sight.device == st.st_dev &&
           sight.size == static_cast<uint64_t>(st.st_size) &&
           sight.changed_ns == nanoseconds(st.st_ctim) &&
           sight.written_ns == nanoseconds(st.st_mtim);
}

uint32_t head_checksum(int fd) {
    return checksum_at(fd, 0);
}

bool read_head_checksum(int fd, uint32_t *checksum) {
    char block[kHeadBytes];
    if (read_block(fd, block, 0) < 0) return false;
    *checksum = computeChecksum(block);
    return true;
}

uint32_t tail_checksum(int fd, uint64_t size, uint64_t position) {
    if (size == 0) return checksum_at(fd, 0);
    // Kept: a file too short for the range is read where a stream would stand whose seek failed.
    return checksum_at(fd, size < kTailBytes ? position : size - kTailBytes);
}

int open_regular(const char *path) {
    return open_checked(path, 0);
}

int open_renamed(const char *path) {
    return open_checked(path, O_NOFOLLOW);
}

size_t read_head(int fd, char block[kHeadBytes]) {
    const ssize_t size = read_block(fd, block, 0);
    return size < 0 ? 0 : static_cast<size_t>(size);
}

sight_result look_at(fdesc *file, bool same_only) {
    const char *path = tail_path(file);
    struct stat st;
    if (stat(path, &st) == 0) {
        if (same_only && !is_inode(st, file->sight)) return sight_result::kOther;
        if (!S_ISREG(st.st_mode)) return sight_result::kMissing;
        if (file->settled && is_as_seen(file->sight, st)) return sight_result::kSeen;
    }
    const owned_descriptor fd(file->drain ? open_renamed(path) : open_regular(path));
    uint32_t head = 0;
    if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !read_head_checksum(fd.get(), &head)) {
        file->settled = 0;
        if (errno != ENOENT && errno != ENODEV) return sight_result::kUnknown;
        return same_only ? sight_result::kOther : sight_result::kMissing;
    }
    if (same_only && !is_inode(st, file->sight)) return sight_result::kOther;
    take_identity(&file->sight, st);
    file->settled = is_settled(file->sight);
    file->sight.head = head;
    file->sight.tail = tail_checksum(fd.get(), file->sight.size, 0);
    return sight_result::kSeen;
}
