// The one time seam of the tests: a library for LD_PRELOAD that lets a process wait less.
//
//   COLLECTOR_TIME_SCALE=N  pauses last one Nth of what was asked for: nanosleep, clock_nanosleep,
//                           usleep, sleep, select without descriptors, and poll or ppoll on none
//                           but event counters and inotify, which only cut a pause short
//   COLLECTOR_IO_SCALE=N    waits for other descriptors last one Nth as well, and the monotonic
//                           clock runs N times as fast, so that deadlines shrink with them
//
// The two are apart because a pause may always be cut short, while a peer on a busy machine needs
// its full time to answer. Absent, empty or not above 1, a variable changes nothing. The wall clock
// is never touched: time stamps stay true.

#include <dlfcn.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int64_t kNanosInSecond = 1'000'000'000;
constexpr int64_t kNanosInMilli = 1'000'000;
constexpr int64_t kShortestWaitNanos = 100'000;  // a scaled loop must not become a busy one

double read_scale(const char *name) {
    const char *text = getenv(name);
    const double scale = text ? atof(text) : 1.0;
    return scale > 1.0 ? scale : 1.0;
}

double wait_scale() {
    static const double scale = read_scale("COLLECTOR_TIME_SCALE");
    return scale;
}

double io_scale() {
    static const double scale = read_scale("COLLECTOR_IO_SCALE");
    return scale;
}

// The next definition of a call: the sanitizer's interceptor where there is one, else libc's.
template <typename Call>
Call *next(const char *name) {
    return reinterpret_cast<Call *>(dlsym(RTLD_NEXT, name));
}

#define NEXT(call) static decltype(&::call) const real = next<decltype(::call)>(#call)

int64_t to_nanos(const timespec &t) {
    return int64_t{t.tv_sec} * kNanosInSecond + t.tv_nsec;
}

timespec to_timespec(int64_t nanos) {
    timespec result = {};
    result.tv_sec = static_cast<time_t>(nanos / kNanosInSecond);
    result.tv_nsec = static_cast<long>(nanos % kNanosInSecond);
    return result;
}

int64_t shorten(int64_t nanos, double scale) {
    if (scale <= 1.0 || nanos <= kShortestWaitNanos) {
        return nanos;
    }
    return std::max(kShortestWaitNanos, static_cast<int64_t>(static_cast<double>(nanos) / scale));
}

int shorten_millis(int millis, double scale) {
    if (millis <= 0 || scale <= 1.0) {
        return millis;
    }
    const int64_t nanos = shorten(int64_t{millis} * kNanosInMilli, scale);
    return static_cast<int>(std::max<int64_t>(1, nanos / kNanosInMilli));
}

// What is left of an interrupted wait is told in the caller's time, not in the shortened one.
void lengthen(timespec *left, double scale) {
    if (left) {
        *left = to_timespec(static_cast<int64_t>(static_cast<double>(to_nanos(*left)) * scale));
    }
}

// A descriptor behind which a peer may need its time; the others are the process's own alarm
// clocks.
bool leads_to_a_peer(const pollfd &watched) {
    if (watched.fd < 0) {
        return false;
    }
    char link[32];
    char target[32] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%d", watched.fd);
    const ssize_t length = readlink(link, target, sizeof target - 1);
    return length < 0 || (strcmp(target, "anon_inode:[eventfd]") != 0 &&
                          strcmp(target, "anon_inode:inotify") != 0);
}

double poll_scale(const pollfd *fds, nfds_t count) {
    return std::any_of(fds, fds + count, leads_to_a_peer) ? io_scale() : wait_scale();
}

}  // namespace

extern "C" {

int nanosleep(const timespec *wanted, timespec *left) {
    NEXT(nanosleep);
    if (!wanted || wait_scale() <= 1.0) {
        return real(wanted, left);
    }
    const timespec shorter = to_timespec(shorten(to_nanos(*wanted), wait_scale()));
    const int result = real(&shorter, left);
    if (result == -1 && errno == EINTR) {
        lengthen(left, wait_scale());
    }
    return result;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec *wanted, timespec *left) {
    NEXT(clock_nanosleep);
    if (!wanted || wait_scale() <= 1.0 || clock == CLOCK_PROCESS_CPUTIME_ID) {
        return real(clock, flags, wanted, left);
    }
    int64_t nanos = to_nanos(*wanted);
    if (flags & TIMER_ABSTIME) {
        timespec now = {};
        clock_gettime(clock, &now);
        nanos = std::max<int64_t>(0, nanos - to_nanos(now));
    }
    const timespec shorter = to_timespec(shorten(nanos, wait_scale()));
    const int result = real(CLOCK_MONOTONIC, 0, &shorter, left);
    if (result == EINTR && !(flags & TIMER_ABSTIME)) {
        lengthen(left, wait_scale());
    }
    return result;
}

int usleep(useconds_t micros) {
    const timespec wanted = to_timespec(int64_t{micros} * 1000);
    return nanosleep(&wanted, nullptr);
}

unsigned sleep(unsigned seconds) {
    timespec left = to_timespec(int64_t{seconds} * kNanosInSecond);
    if (nanosleep(&left, &left) == 0) {
        return 0;
    }
    return static_cast<unsigned>(left.tv_sec + (left.tv_nsec > 0 ? 1 : 0));
}

int poll(pollfd *fds, nfds_t count, int timeout) {
    NEXT(poll);
    return real(fds, count, shorten_millis(timeout, poll_scale(fds, count)));
}

int ppoll(pollfd *fds, nfds_t count, const timespec *timeout, const sigset_t *mask) {
    NEXT(ppoll);
    if (!timeout) {
        return real(fds, count, timeout, mask);
    }
    const timespec shorter = to_timespec(shorten(to_nanos(*timeout), poll_scale(fds, count)));
    return real(fds, count, &shorter, mask);
}

int select(int count, fd_set *readers, fd_set *writers, fd_set *others, timeval *timeout) {
    NEXT(select);
    if (!timeout) {
        return real(count, readers, writers, others, timeout);
    }
    const bool pure = count == 0 || (!readers && !writers && !others);
    const int64_t nanos = int64_t{timeout->tv_sec} * kNanosInSecond + timeout->tv_usec * 1000;
    const timespec shorter = to_timespec(shorten(nanos, pure ? wait_scale() : io_scale()));
    timeval left = {shorter.tv_sec, shorter.tv_nsec / 1000};
    return real(count, readers, writers, others, &left);
}

int epoll_wait(int epoll, epoll_event *events, int count, int timeout) {
    NEXT(epoll_wait);
    return real(epoll, events, count, shorten_millis(timeout, io_scale()));
}

int clock_gettime(clockid_t clock, timespec *now) {
    NEXT(clock_gettime);
    const int result = real(clock, now);
    if (result != 0 || clock != CLOCK_MONOTONIC || io_scale() <= 1.0) {
        return result;
    }
    static const int64_t start = to_nanos(*now);
    const double elapsed = static_cast<double>(to_nanos(*now) - start) * io_scale();
    *now = to_timespec(start + static_cast<int64_t>(elapsed));
    return result;
}

}  // extern "C"
