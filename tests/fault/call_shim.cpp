// A library for LD_PRELOAD that lets a chosen call of the C library fail at a chosen moment, and
// the wall clock jump.
//
//   COLLECTOR_FAULT_CALL=NAME    which call; those that stand below
//   COLLECTOR_FAULT_AT=K         the K-th call of that name fails, counted from 1 over all threads
//   COLLECTOR_FAULT_COUNT=N      and the N-1 calls after it, too (default 1; 0 = for good)
//   COLLECTOR_FAULT_ERRNO=E      with this error number (default EIO)
//   COLLECTOR_FAULT_KILL=1       or, instead, the process is killed in front of the K-th call
//   COLLECTOR_FAULT_PATH=TEXT    count only calls on paths (or descriptors of paths) that hold TEXT
//
//   COLLECTOR_FAULT_AFTER=TEXT   count only what comes after open() of a path that holds TEXT
//   COLLECTOR_FAULT_PROGRAM=NAME count only the calls of this program, not those of a shell before
//   it COLLECTOR_FAULT_REPORT=FILE  made when the first call fails, so that a test knows that one
//   did COLLECTOR_CLOCK_FILE=FILE    holds the seconds that are added to the wall clock, now and
//   then
//                                others
//
// A call that fails does nothing else. Without the variables nothing changes.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct fault {
    char call[32] = "";
    char path[256] = "";
    char report[512] = "";
    char after[256] = "";
    std::atomic<bool> armed{true};
    long at = 0;
    long count = 1;
    int error = EIO;
    bool kills = false;
    std::atomic<long> seen{0};
    char clock[512] = "";
};

long number(const char *name, long otherwise) {
    const char *text = getenv(name);
    return text ? atol(text) : otherwise;
}

template <size_t Size>
void text(const char *name, char (&to)[Size]) {
    if (const char *value = getenv(name)) snprintf(to, Size, "%s", value);
}

fault &the_fault() {
    static fault f;
    return f;
}

// Read once at load time: getenv is not safe beside threads that change the environment.
__attribute__((constructor)) void read_environment() {
    fault &f = the_fault();
    text("COLLECTOR_FAULT_CALL", f.call);
    text("COLLECTOR_FAULT_PATH", f.path);
    text("COLLECTOR_FAULT_REPORT", f.report);
    text("COLLECTOR_FAULT_AFTER", f.after);
    text("COLLECTOR_CLOCK_FILE", f.clock);
    f.armed = f.after[0] == '\0';
    f.count = number("COLLECTOR_FAULT_COUNT", 1);
    f.error = static_cast<int>(number("COLLECTOR_FAULT_ERRNO", EIO));
    f.kills = number("COLLECTOR_FAULT_KILL", 0) != 0;
    const char *program = getenv("COLLECTOR_FAULT_PROGRAM");
    const bool meant = !program || strcmp(program, program_invocation_short_name) == 0;
    f.at = meant ? number("COLLECTOR_FAULT_AT", 0) : 0;
}

bool strikes(const char *call) {
    fault &f = the_fault();
    if (f.at == 0 || !f.armed || strcmp(f.call, call) != 0) return false;
    const long seen = f.seen.fetch_add(1) + 1;
    if (seen < f.at || (f.count != 0 && seen >= f.at + f.count)) return false;
    if (seen == f.at && f.report[0] != '\0') {
        // Straight to the kernel: the wrapped calls count.
        const long fd = syscall(SYS_openat, AT_FDCWD, f.report, O_WRONLY | O_CREAT, 0600);
        if (fd >= 0) syscall(SYS_close, fd);
    }
    if (f.kills) kill(getpid(), SIGKILL);
    errno = f.error;
    return true;
}

void arm(const char *opened) {
    fault &f = the_fault();
    if (!f.armed && strstr(opened, f.after)) f.armed = true;
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

// What the file says is to be added to the wall clock; straight from the kernel, as above.
long clock_offset() {
    const fault &f = the_fault();
    if (f.clock[0] == '\0') return 0;
    char bytes[32] = "";
    const long fd = syscall(SYS_openat, AT_FDCWD, f.clock, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return 0;
    const long got = syscall(SYS_read, fd, bytes, sizeof bytes - 1);
    syscall(SYS_close, fd);
    return got > 0 ? atol(bytes) : 0;
}

template <typename Call>
Call *next(const char *name) {
    return reinterpret_cast<Call *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#define NEXT(call) static decltype(&::call) const real = next<decltype(::call)>(#call)
#define FAILS(result, condition) \
    if (condition) return result

// A call whose failure is known by its name alone.
#define PLAIN(result, name, parameters, arguments, failure) \
    result name parameters {                                \
        NEXT(name);                                         \
        FAILS(failure, strikes(#name));                     \
        return real arguments;                              \
    }
// One on an open file, counted by its path; `name` stands for its 64 bit twin as well.
#define ON_FILE(result, symbol, name, parameters, arguments) \
    result symbol parameters {                               \
        NEXT(symbol);                                        \
        FAILS(-1, strikes_descriptor(#name, fd));            \
        return real arguments;                               \
    }
// One on a path.
#define ON_PATH(result, symbol, name, parameters, arguments, failure) \
    result symbol parameters {                                        \
        NEXT(symbol);                                                 \
        FAILS(failure, strikes_path(#name, path));                    \
        return real arguments;                                        \
    }
// open() and its 64 bit twin.
#define OPENS(symbol)                                                                        \
    int symbol(const char *path, int flags, ...) {                                           \
        NEXT(symbol);                                                                        \
        arm(path);                                                                           \
        FAILS(-1, strikes_path("open", path));                                               \
        va_list rest;                                                                        \
        va_start(rest, flags);                                                               \
        const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0; \
        va_end(rest);                                                                        \
        return real(path, flags, mode);                                                      \
    }

extern "C" {

OPENS(open)
OPENS(open64)
ON_FILE(ssize_t, read, read, (int fd, void *buffer, size_t size), (fd, buffer, size))
ON_FILE(ssize_t, write, write, (int fd, const void *buffer, size_t size), (fd, buffer, size))
ON_FILE(ssize_t, pread, pread, (int fd, void *buffer, size_t size, off_t at),
        (fd, buffer, size, at))
ON_FILE(ssize_t, pread64, pread, (int fd, void *buffer, size_t size, off64_t at),
        (fd, buffer, size, at))
ON_FILE(ssize_t, pwrite, pwrite, (int fd, const void *buffer, size_t size, off_t at),
        (fd, buffer, size, at))
ON_FILE(ssize_t, pwrite64, pwrite, (int fd, const void *buffer, size_t size, off64_t at),
        (fd, buffer, size, at))
ON_FILE(int, fstat, fstat, (int fd, struct stat *info) noexcept, (fd, info))
ON_FILE(int, ftruncate, ftruncate, (int fd, off_t size) noexcept, (fd, size))
ON_FILE(int, fsync, fsync, (int fd), (fd))
ON_FILE(int, fchmod, fchmod, (int fd, mode_t mode) noexcept, (fd, mode))
ON_FILE(int, fchown, fchown, (int fd, uid_t user, gid_t group) noexcept, (fd, user, group))
ON_PATH(int, stat, stat, (const char *path, struct stat *info) noexcept, (path, info), -1)
ON_PATH(int, lstat, lstat, (const char *path, struct stat *info) noexcept, (path, info), -1)
ON_PATH(int, statx, statx,
        (int fd, const char *path, int flags, unsigned mask, struct statx *info) noexcept,
        (fd, path, flags, mask, info), -1)
ON_PATH(int, mkdir, mkdir, (const char *path, mode_t mode) noexcept, (path, mode), -1)
ON_PATH(int, unlink, unlink, (const char *path) noexcept, (path), -1)
ON_PATH(int, rename, rename, (const char *path, const char *to) noexcept, (path, to), -1)
ON_PATH(int, link, link, (const char *path, const char *to) noexcept, (path, to), -1)
ON_PATH(FILE *, fopen, fopen, (const char *path, const char *mode), (path, mode), nullptr)
ON_PATH(DIR *, opendir, opendir, (const char *path), (path), nullptr)
ON_PATH(int, inotify_add_watch, inotify_add_watch,
        (int fd, const char *path, uint32_t mask) noexcept, (fd, path, mask), -1)
PLAIN(dirent *, readdir, (DIR * dir), (dir), nullptr)
PLAIN(int, socket, (int family, int type, int protocol) noexcept, (family, type, protocol), -1)
PLAIN(int, setsockopt, (int fd, int level, int name, const void *value, socklen_t size) noexcept,
      (fd, level, name, value, size), -1)
PLAIN(int, getsockname, (int fd, sockaddr *address, socklen_t *size) noexcept, (fd, address, size),
      -1)
PLAIN(int, getaddrinfo,
      (const char *host, const char *service, const addrinfo *hints, addrinfo **list),
      (host, service, hints, list), EAI_AGAIN)
PLAIN(int, connect, (int fd, const sockaddr *address, socklen_t size), (fd, address, size), -1)
PLAIN(ssize_t, send, (int fd, const void *bytes, size_t size, int flags), (fd, bytes, size, flags),
      -1)
PLAIN(ssize_t, sendmsg, (int fd, const msghdr *message, int flags), (fd, message, flags), -1)
PLAIN(ssize_t, recv, (int fd, void *buffer, size_t size, int flags), (fd, buffer, size, flags), -1)
PLAIN(ssize_t, recvmsg, (int fd, msghdr *message, int flags), (fd, message, flags), -1)
PLAIN(int, poll, (pollfd * set, nfds_t count, int timeout), (set, count, timeout), -1)
PLAIN(int, eventfd, (unsigned first, int flags) noexcept, (first, flags), -1)
PLAIN(int, inotify_init1, (int flags) noexcept, (flags), -1)
PLAIN(void *, malloc, (size_t size), (size), nullptr)
PLAIN(void *, realloc, (void *block, size_t size), (block, size), nullptr)

int clock_gettime(clockid_t clock, timespec *now) noexcept {
    NEXT(clock_gettime);
    const int result = real(clock, now);
    if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += clock_offset();
    return result;
}

time_t time(time_t *now) noexcept {
    timespec exact = {};
    clock_gettime(CLOCK_REALTIME, &exact);
    if (now) *now = exact.tv_sec;
    return exact.tv_sec;
}

}  // extern "C"
