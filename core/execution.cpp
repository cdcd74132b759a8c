#include "core/execution.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace {

constexpr long kResumePollNanoseconds = 5'000'000;

std::atomic<int32_t> state{kStateRunning};
std::atomic<int32_t> joins_in_progress{0};

// Two event counters that the waits poll, so that a stop or a pause ends them at once. They are
// only hints: whoever wakes looks at the state word again, and a lost hint costs one step of a
// wait.
std::atomic<int> leave_hint{-1};  // raised by stop and pause
std::atomic<int> stop_hint{-1};   // raised by stop

// Opened by the first wait and not earlier: only then the standard streams are surely taken.
int open_hint(std::atomic<int> &hint) {
    int fd = hint.load();
    if (fd >= 0) return fd;
    const int fresh = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (hint.compare_exchange_strong(fd, fresh)) return fresh;
    if (fresh >= 0) close(fresh);
    return fd;
}

// Called from signal handlers too: write() and atomics only.
void raise_hint(const std::atomic<int> &hint) {
    const int saved_errno = errno;
    const uint64_t one = 1;
    const int fd = hint.load();
    if (fd >= 0 && write(fd, &one, sizeof one) < 0) {
        // The counter is full, hence readable.
    }
    errno = saved_errno;
}

// A hint of an earlier life or pause would end every wait at once; take it away while `go_on` says
// that nobody needs it.
void lower_hint(const std::atomic<int> &hint, int (*go_on)()) {
    uint64_t count = 0;
    const int fd = hint.load();
    if (fd >= 0 && read(fd, &count, sizeof count) < 0) return;
    if (!go_on()) raise_hint(hint);
}

int wait_while(int (*go_on)(), std::atomic<int> &hint, int milliseconds) {
    pollfd watched{open_hint(hint), POLLIN, 0};
    while (go_on()) {
        if (poll(&watched, 1, milliseconds) <= 0) break;  // poll() passes over a descriptor of -1
        if (go_on()) lower_hint(hint, go_on);
    }
    return go_on();
}

}  // namespace

int exec_status() {
    return state.load();
}

int is_executing() {
    return state.load(std::memory_order_relaxed) == kStateRunning;
}

int is_running() {
    return state.load(std::memory_order_relaxed) & kStateRunning;
}

void stop_execution() {
    state.store(kStateStopped);
    raise_hint(leave_hint);
    raise_hint(stop_hint);
}

void pause_execution() {
    state.fetch_or(kStatePaused);
    raise_hint(leave_hint);
}

void resume_execution() {
    state.fetch_and(~kStatePaused);
}

void execution_reset_for_start() {
    state.store(kStateRunning);
}

int wait_while_executing(int milliseconds) {
    return wait_while(is_executing, leave_hint, milliseconds);
}

int wait_readable_while_executing(int fd, int milliseconds) {
    pollfd watched[] = {{fd, POLLIN, 0}, {open_hint(leave_hint), POLLIN, 0}};
    while (is_executing()) {
        if (poll(watched, 2, milliseconds) <= 0) return 0;
        if (watched[0].revents != 0) return is_executing();
        if (is_executing()) lower_hint(leave_hint, is_executing);
    }
    return 0;
}

int wait_while_running(int milliseconds) {
    return wait_while(is_running, stop_hint, milliseconds);
}

int wait_until_resumed() {
    while (exec_status() == (kStateRunning | kStatePaused) && joins_in_progress.load() == 0) {
        const timespec pause = {0, kResumePollNanoseconds};
        nanosleep(&pause, nullptr);
    }
    return is_executing();
}

void begin_joining_workers() {
    joins_in_progress.fetch_add(1);
}

void end_joining_workers() {
    joins_in_progress.fetch_sub(1);
}

stop_signals_blocked::stop_signals_blocked() {
    sigset_t stopping;
    sigemptyset(&stopping);
    for (const int signum : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) sigaddset(&stopping, signum);
    pthread_sigmask(SIG_BLOCK, &stopping, &previous_);
}

stop_signals_blocked::~stop_signals_blocked() {
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}
