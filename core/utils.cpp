#include "core/utils.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "core/execution.h"

namespace {

constexpr const char *kLockFile = "/var/lock/velmor_siem_collector.loc";
constexpr size_t kBlockBytes = 256;
constexpr int kSleepStepMilliseconds = 1000;

int lockfile_fd = -1;

bool exists(const char *path) {
    struct stat info;
    return stat(path, &info) == 0;
}

[[noreturn]] void lock_failed(int fd, const char *message) {
    fputs(message, stderr);
    close(fd);
    exit(1);
}

}  // namespace

uint32_t calculateCRC(FILE *fd, long seek) {
    char block[kBlockBytes] = {};
    const long position = ftell(fd);
    // Kept: for a file of fewer than 257 bytes the offset is negative, the seek fails and the block
    // is read where the stream stands; the checksums in existing bookmark files were made like
    // that.
    if (fseek(fd, seek == 0 ? 0 : seek - 257, SEEK_SET) != 0) clearerr(fd);
    const size_t got = fread(block, 1, sizeof block, fd);
    if (got < sizeof block) clearerr(fd);
    fseek(fd, position, SEEK_SET);
    return computeChecksum(block);
}

void safe_sleep(int sec) {
    for (; sec > 0 && is_executing(); --sec) wait_while_executing(kSleepStepMilliseconds);
}

int create_dirx(const char *name) {
    if (exists(name)) return 0;
    // Parents first; a parent that cannot be made shows in the result of the last creation.
    const std::string_view whole(name);
    for (size_t slash = whole.find('/', 1); slash != whole.npos;
         slash = whole.find('/', slash + 1)) {
        char *parent = strndup(name, slash);
        if (!parent) return -1;
        if (!exists(parent)) mkdir(parent, 0755);
        free(parent);
    }
    // Kept: with a "/" at its end the name was made just now as its own parent, and this creation
    // fails as already existing; the first start with such a name reports a failure.
    return mkdir(name, 0755);
}

int create_dir(const wchar_t *filename) {
    char *name = wstrtostr(filename);
    if (!name) return -1;
    const int result = create_dirx(name);
    const int saved_errno = errno;
    free(name);
    errno = saved_errno;
    return result;
}

void obtain_lockfile() {
    obtain_lockfile_at(kLockFile);
}

void obtain_lockfile_at(const char *path) {
    // The folder may be writable for everybody: a link is not followed, a FIFO does not block, and
    // only what proves to be a plain file of one name is emptied.
    const int flags = O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    int fd = open(path, flags | O_CREAT, 0600);
    if (fd < 0 && errno == EACCES) {
        fd = open(path, flags);  // the kernel may refuse to "create" the file of another user
    }
    if (fd < 0) {
        fprintf(stderr, "Failed to obtain file lock: %d - %s\n", fd, strerror(errno));
        exit(1);
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        lock_failed(fd,
                    errno == EWOULDBLOCK ? "Lock File is Locked\n" : "Error Getting Lock File\n");
    }
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_nlink != 1 ||
        ftruncate(fd, 0) != 0) {
        lock_failed(fd, "Error Getting Lock File\n");
    }
    lockfile_fd = fd;
}

void release_lockfile() {
    if (lockfile_fd < 0) return;
    flock(lockfile_fd, LOCK_UN);
    close(lockfile_fd);
    lockfile_fd = -1;
}
