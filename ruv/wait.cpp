#include "ruv/wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace ruv {
namespace {

// Waits that follow each other this closely are one wait to the interrupt callback: a peer that
// trickles bytes must not keep a stop request from being heard.
constexpr int64_t kSameWaitMs = 1000;

void real_sleep(int milliseconds) {
    timespec left = {milliseconds / 1000, (milliseconds % 1000) * 1'000'000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

int interrupted() {
    errno = EINTR;
    return -1;
}

// Asks the callback when the last question of this row of waits is a slice ago. The first wait of
// a row asks nothing: an answer that comes at once must not be thrown away by a stop.
bool stop_in_row(RUVConn *conn) {
    const int64_t now = now_ms();
    const int64_t since = now - conn->asked_ms;
    if (since < kSliceMs) return false;
    conn->asked_ms = now;
    return since < kSameWaitMs && stop_requested(conn);
}

}  // namespace

os_calls os = {getaddrinfo, connect, real_sleep, now_ms, 10'000, 10'000};

int64_t now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

bool stop_requested(const RUVConn *conn) {
    return conn->stopping && conn->stopping(conn->stopping_arg) != 0;
}

int wait_for(RUVConn *conn, short events, int64_t timeout_ms) {
    pollfd watched = {conn->skt, events, 0};
    const int64_t end = now_ms() + timeout_ms;
    int64_t left = timeout_ms;
    for (;;) {
        if (conn->stopping && stop_in_row(conn)) return interrupted();
        int64_t slice = timeout_ms < 0 ? -1 : std::min<int64_t>(left, 3'600'000);
        if (conn->stopping && (slice < 0 || slice > kSliceMs)) slice = kSliceMs;
        const int ready = poll(&watched, 1, static_cast<int>(slice));
        if (ready > 0) return 1;
        if (ready < 0 && errno != EINTR) return -1;
        if (conn->stopping && (ready < 0 || slice == kSliceMs)) {
            conn->asked_ms = now_ms();
            if (stop_requested(conn)) return interrupted();
        }
        if (timeout_ms >= 0) {
            // A slice that ran out counts with its full length, whatever the clock's grain.
            left = ready == 0 ? left - slice : end - now_ms();
            if (left <= 0) return 0;
        }
    }
}

int64_t time_left(const RUVConn *conn) {
    return conn->io_deadline_ms == 0 ? -1 : std::max<int64_t>(0, conn->io_deadline_ms - now_ms());
}

int pause_seconds(const RUVConn *conn, int seconds) {
    int left = seconds * 1000;
    while (left > 0) {
        if (stop_requested(conn)) return interrupted();
        const int slice = conn->stopping ? std::min(left, kSliceMs) : left;
        os.sleep_ms(slice);
        left -= slice;
    }
    return 0;
}

}  // namespace ruv
