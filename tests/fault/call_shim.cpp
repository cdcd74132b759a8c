// A library for LD_PRELOAD that lets a chosen system call fail at a chosen moment.
//
//   COLLECTOR_FAULT_CALL=NAME    which call: open, read, pread, pwrite, fstat, stat, ftruncate,
//                                statx, opendir, readdir, socket, connect, send, sendmsg, recv,
//                                recvmsg, poll, malloc
//   COLLECTOR_FAULT_AT=K         the K-th call of that name fails, counted from 1 over all threads
//   COLLECTOR_FAULT_COUNT=N      and the N-1 calls after it, too (default 1; 0 = for good)
//   COLLECTOR_FAULT_ERRNO=E      with this error number (default EIO)
//   COLLECTOR_FAULT_PATH=TEXT    count only calls on paths (or descriptors of paths) that hold TEXT
//
//   COLLECTOR_FAULT_REPORT=FILE  made when the first call fails, so that a test knows that one did
//
// A call that fails does nothing else. Without the variables nothing changes.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct fault {
    char call[32] = "";
    char path[256] = "";
    char report[512] = "";
    long at = 0;
    long count = 1;
    int error = EIO;
    std::atomic<long> seen{0};
};

long number(const char *name, long otherwise) {
    const char *text = getenv(name);
    return text ? atol(text) : otherwise;
}

fault &the_fault() {
    static fault f;
    return f;
}

// Read once at load time: getenv is not safe beside threads that change the environment.
__attribute__((constructor)) void read_environment() {
    fault &f = the_fault();
    if (const char *call = getenv("COLLECTOR_FAULT_CALL")) {
        snprintf(f.call, sizeof f.call, "%s", call);
    }
    if (const char *path = getenv("COLLECTOR_FAULT_PATH")) {
        snprintf(f.path, sizeof f.path, "%s", path);
    }
    if (const char *report = getenv("COLLECTOR_FAULT_REPORT")) {
        snprintf(f.report, sizeof f.report, "%s", report);
    }
    f.at = number("COLLECTOR_FAULT_AT", 0);
    f.count = number("COLLECTOR_FAULT_COUNT", 1);
    f.error = static_cast<int>(number("COLLECTOR_FAULT_ERRNO", EIO));
}

bool strikes(const char *call) {
    fault &f = the_fault();
    if (f.at == 0 || strcmp(f.call, call) != 0) return false;
    const long seen = f.seen.fetch_add(1) + 1;
    if (seen < f.at || (f.count != 0 && seen >= f.at + f.count)) return false;
    if (seen == f.at && f.report[0] != '\0') {
        // Straight to the kernel: the wrapped calls count.
        const long fd = syscall(SYS_openat, AT_FDCWD, f.report, O_WRONLY | O_CREAT, 0600);
        if (fd >= 0) syscall(SYS_close, fd);
    }
    errno = f.error;
    return true;
}

bool strikes_path(const char *call, const char *path) {
    fault &f = the_fault();
    if (f.at == 0 || strcmp(f.call, call) != 0) return false;
    if (f.path[0] != '\0' && (path == nullptr || strstr(path, f.path) == nullptr)) return false;
    return strikes(call);
}

bool strikes_descriptor(const char *call, int fd) {
    fault &f = the_fault();
    if (f.at == 0 || strcmp(f.call, call) != 0) return false;
    if (f.path[0] == '\0') return strikes(call);
    char link[64], target[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, target, sizeof target - 1);
    target[length < 0 ? 0 : length] = '\0';
    return strikes_path(call, target);
}

template <typename Call>
Call *next(const char *name) {
    return reinterpret_cast<Call *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define NEXT(call) static decltype(&::call) const real = next<decltype(::call)>(#call)
#define FAILS(result, condition) \
    if (condition) return result

extern "C" {

int open(const char *path, int flags, ...) {
    NEXT(open);
    FAILS(-1, strikes_path("open", path));
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return real(path, flags, mode);
}

int open64(const char *path, int flags, ...) {
    NEXT(open64);
    FAILS(-1, strikes_path("open", path));
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return real(path, flags, mode);
}

ssize_t read(int fd, void *buffer, size_t size) {
    NEXT(read);
    FAILS(-1, strikes_descriptor("read", fd));
    return real(fd, buffer, size);
}

ssize_t pread(int fd, void *buffer, size_t size, off_t at) {
    NEXT(pread);
    FAILS(-1, strikes_descriptor("pread", fd));
    return real(fd, buffer, size, at);
}

ssize_t pread64(int fd, void *buffer, size_t size, off64_t at) {
    NEXT(pread64);
    FAILS(-1, strikes_descriptor("pread", fd));
    return real(fd, buffer, size, at);
}

ssize_t pwrite(int fd, const void *buffer, size_t size, off_t at) {
    NEXT(pwrite);
    FAILS(-1, strikes_descriptor("pwrite", fd));
    return real(fd, buffer, size, at);
}

ssize_t pwrite64(int fd, const void *buffer, size_t size, off64_t at) {
    NEXT(pwrite64);
    FAILS(-1, strikes_descriptor("pwrite", fd));
    return real(fd, buffer, size, at);
}

int fstat(int fd, struct stat *info) noexcept {
    NEXT(fstat);
    FAILS(-1, strikes_descriptor("fstat", fd));
    return real(fd, info);
}

int stat(const char *path, struct stat *info) noexcept {
    NEXT(stat);
    FAILS(-1, strikes_path("stat", path));
    return real(path, info);
}

int statx(int fd, const char *path, int flags, unsigned mask, struct statx *info) noexcept {
    NEXT(statx);
    FAILS(-1, strikes_path("statx", path));
    return real(fd, path, flags, mask, info);
}

int ftruncate(int fd, off_t size) noexcept {
    NEXT(ftruncate);
    FAILS(-1, strikes_descriptor("ftruncate", fd));
    return real(fd, size);
}

DIR *opendir(const char *path) {
    NEXT(opendir);
    FAILS(nullptr, strikes_path("opendir", path));
    return real(path);
}

dirent *readdir(DIR *dir) {
    NEXT(readdir);
    FAILS(nullptr, strikes("readdir"));
    return real(dir);
}

int socket(int family, int type, int protocol) noexcept {
    NEXT(socket);
    FAILS(-1, strikes("socket"));
    return real(family, type, protocol);
}

int connect(int fd, const sockaddr *address, socklen_t size) {
    NEXT(connect);
    FAILS(-1, strikes("connect"));
    return real(fd, address, size);
}

ssize_t send(int fd, const void *bytes, size_t size, int flags) {
    NEXT(send);
    FAILS(-1, strikes("send"));
    return real(fd, bytes, size, flags);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    NEXT(sendmsg);
    FAILS(-1, strikes("sendmsg"));
    return real(fd, message, flags);
}

ssize_t recv(int fd, void *buffer, size_t size, int flags) {
    NEXT(recv);
    FAILS(-1, strikes("recv"));
    return real(fd, buffer, size, flags);
}

ssize_t recvmsg(int fd, msghdr *message, int flags) {
    NEXT(recvmsg);
    FAILS(-1, strikes("recvmsg"));
    return real(fd, message, flags);
}

int poll(pollfd *set, nfds_t count, int timeout) {
    NEXT(poll);
    FAILS(-1, strikes("poll"));
    return real(set, count, timeout);
}

void *malloc(size_t size) {
    NEXT(malloc);
    FAILS(nullptr, strikes("malloc"));
    return real(size);
}

}  // extern "C"
