#pragma once
/// Waiting: the monotonic clock, polling a handle's socket, pauses, and the interrupt callback
/// that every wait asks. The calling thread owns the handle. Results only; no error is set.
#include <netdb.h>
#include <sys/socket.h>

#include <cstdint>

#include "ruv/conn.h"

namespace ruv {

inline constexpr int kSliceMs = 250;  ///< longest time between two questions to the callback

/// What tests replace, so that a refusing resolver or a 29-second pause needs neither a
/// network nor the time. One process-wide table, written by tests only.
struct os_calls {
    int (*resolve)(const char *, const char *, const addrinfo *, addrinfo **);
    int (*connect)(int, const sockaddr *, socklen_t);
    void (*sleep_ms)(int milliseconds);
    int64_t (*now_ms)();
    int64_t probe_budget_ms;   ///< for the answers of both probe attempts together
    int64_t own_handshake_ms;  ///< whole handshake of a handle with its own TLS context
};
extern os_calls os;

/// Monotonic milliseconds of the real clock.
int64_t now_ms();

/// @return true when the handle's callback wants the waiting call to end.
bool stop_requested(const RUVConn *conn);

/// Waits for poll `events` on conn->skt. @param timeout_ms  below 0: without limit
/// @return 1 ready (or failed: the next transfer will tell), 0 timed out, -1 with errno (EINTR
/// only for an interrupt).
int wait_for(RUVConn *conn, short events, int64_t timeout_ms);

/// What is left of conn->io_deadline_ms. @return milliseconds, 0 when over, -1 without a deadline.
int64_t time_left(const RUVConn *conn);

/// Sleeps; asks the callback first and between slices. @return 0, or -1 with errno EINTR.
int pause_seconds(const RUVConn *conn, int seconds);

}  // namespace ruv
