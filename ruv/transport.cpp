#include "ruv/transport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "ruv/error.h"
#include "ruv/resolve.h"
#include "ruv/trace.h"
#include "ruv/transport_tls.h"
#include "ruv/wait.h"

namespace {

using ruv::fail;
using ruv::fail_system;

constexpr int kTries = 6;                // of the resolver, and of connect
constexpr int kTriesLimitMs = 29'000;    // no further try after this time
constexpr int kPauseSeconds = 5;         // between two tries
constexpr socklen_t kSourceLength = 16;  // bytes of address asked for, see record_source
constexpr size_t kTlsRecord = 16'384;    // most bytes in one TLS record

// What becomes of one try.
enum class outcome { done, again, failed };

// Runs `attempt` until it is done or failed, within the limits above. @return 0, or -1 with its
// error, error 4 when tries or time ran out, or 3 when interrupted.
template <class Attempt>
int try_repeatedly(const RUVConn *conn, Attempt attempt) {
    const int64_t start = ruv::os.now_ms();
    for (int i = 0; i < kTries; ++i) {
        if (ruv::os.now_ms() - start > kTriesLimitMs) break;
        const outcome result = attempt();
        if (result != outcome::again) return result == outcome::done ? 0 : -1;
        if (i + 1 < kTries && ruv::pause_seconds(conn, kPauseSeconds) != 0)
            return fail_system(errno);
    }
    return fail(4);
}

// Keeps the first address of `list` in the handle's own storage.
void keep_address(RUVConn *conn, const addrinfo *list) {
    conn->conninfo = *list;
    conn->conn_ai_addr = {};
    memcpy(&conn->conn_ai_addr, list->ai_addr,
           std::min<size_t>(list->ai_addrlen, sizeof conn->conn_ai_addr));
    conn->conninfo.ai_addr = reinterpret_cast<sockaddr *>(&conn->conn_ai_addr);
    conn->conninfo.ai_canonname = nullptr;
    conn->conninfo.ai_next = nullptr;
    conn->conn_ai_addr.sin6_port = htons(static_cast<uint16_t>(conn->port));
}
// Both address families keep the port in the same place.
static_assert(offsetof(sockaddr_in6, sin6_port) == offsetof(sockaddr_in, sin_port));

// The kernel's verdict on a connect that was under way: 0 or an errno.
int finish_connect(RUVConn *conn) {
    if (ruv::wait_for(conn, POLLOUT, -1) < 0) return errno;
    int verdict = 0;
    socklen_t size = sizeof verdict;
    return getsockopt(conn->skt, SOL_SOCKET, SO_ERROR, &verdict, &size) == 0 ? verdict : errno;
}

// One try. The socket does not block, so that a stop ends the wait; the result is a blocking
// call's.
outcome connect_once(RUVConn *conn) {
    int error = 0;
    if (ruv::os.connect(conn->skt, conn->conninfo.ai_addr, conn->conninfo.ai_addrlen) != 0)
        error = errno;
    if (error == EINPROGRESS) error = finish_connect(conn);
    if (error == 0) return outcome::done;
    if (error == EAGAIN) return outcome::again;
    fail_system(error);
    return outcome::failed;
}

int set_blocking(int fd, bool blocking) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return -1;
    return fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

int open_socket(RUVConn *conn) {
    const int type = conn->conninfo.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK;
    conn->skt = socket(conn->conninfo.ai_family, type, conn->conninfo.ai_protocol);
    if (conn->skt < 0) {
        conn->skt = -1;
        return fail_system(errno);
    }
    // A request's header and body are two writes; held back until the first is acknowledged, the
    // second would cost a round trip of 40 ms. The result only costs time when it fails.
    const int on = 1;
    setsockopt(conn->skt, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return 0;
}

// Kept: the address length is that of an IPv4 socket whatever the family, so an IPv6 source
// address is cut to its first half; Receivers know the hosts by that text.
void record_source(RUVConn *conn) {
    sockaddr_storage source = {};
    socklen_t size = kSourceLength;
    if (getsockname(conn->skt, reinterpret_cast<sockaddr *>(&source), &size) != 0) return;
    const void *address = &reinterpret_cast<const sockaddr_in *>(&source)->sin_addr;
    if (source.ss_family == AF_INET6)
        address = &reinterpret_cast<const sockaddr_in6 *>(&source)->sin6_addr;
    inet_ntop(source.ss_family, address, conn->ip_addr, sizeof conn->ip_addr);
}

// Waits for the socket within the handle's deadline. @return 0, or -1 with error 3 or 4.
int wait_socket(RUVConn *conn, short events) {
    const int64_t left = ruv::time_left(conn);
    const int ready = left == 0 ? 0 : ruv::wait_for(conn, events, left);
    if (ready < 0) return fail_system(errno);
    return ready == 0 ? fail(4) : 0;
}

// Takes `count` written bytes off the front of the segments.
void consume(int iovcnt, iovec *iov, size_t count) {
    for (int i = 0; i < iovcnt && count > 0; ++i) {
        const size_t part = std::min(count, iov[i].iov_len);
        iov[i].iov_base = static_cast<char *>(iov[i].iov_base) + part;
        iov[i].iov_len -= part;
        count -= part;
    }
}

size_t total_length(int iovcnt, const iovec *iov) {
    size_t total = 0;
    for (int i = 0; i < iovcnt; ++i) total += iov[i].iov_len;
    return total;
}

// Moves everything over the plain socket; `transfer` is one sendmsg or recvmsg.
template <class Transfer>
int move_plain(RUVConn *conn, int iovcnt, iovec *iov, short events, Transfer transfer) {
    msghdr message = {};
    message.msg_iov = iov;
    message.msg_iovlen = static_cast<size_t>(std::min(iovcnt, IOV_MAX));
    for (size_t left = total_length(iovcnt, iov); left > 0;) {
        const ssize_t moved = transfer(conn->skt, &message);
        if (moved >= 1) {
            left -= static_cast<size_t>(moved);
            consume(iovcnt, iov, static_cast<size_t>(moved));
            if (conn->io_stall_ms) conn->io_deadline_ms = ruv::now_ms() + conn->io_stall_ms;
            continue;
        }
        if (moved < 0 && errno == EINTR) continue;
        if (moved == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
            return fail_system(moved == 0 ? 0 : errno);
        if (wait_socket(conn, events) != 0) return -1;
    }
    return 0;
}

// A handle with TLS options sends a unit as one TLS record where it fits into one: each record
// costs its own encryption, and a unit has four segments or more.
int write_as_one_record(RUVConn *conn, int iovcnt, iovec *iov, size_t total) {
    char unit[kTlsRecord];
    size_t used = 0;
    for (int i = 0; i < iovcnt; ++i) {
        if (iov[i].iov_len > 0) memcpy(unit + used, iov[i].iov_base, iov[i].iov_len);
        used += iov[i].iov_len;
    }
    iovec whole = {unit, total};
    if (ruv::tls_write_segment(conn, &whole, false) < 1) return -1;
    consume(iovcnt, iov, total);
    return 0;
}

// Kept: by default each segment becomes TLS records of its own, which is what Receivers of old have
// always been sent.
int write_tls(RUVConn *conn, int iovcnt, iovec *iov) {
    size_t left = total_length(iovcnt, iov);
    if (conn->tls_opted && left > 0 && left <= kTlsRecord)
        return write_as_one_record(conn, iovcnt, iov, left);
    for (int i = 0; i < iovcnt; ++i) {
        left -= iov[i].iov_len;
        if (ruv::tls_write_segment(conn, &iov[i], left > 0) < 1) return -1;
    }
    return 0;
}

int read_tls(RUVConn *conn, int iovcnt, iovec *iov) {
    for (int i = 0; i < iovcnt; ++i)
        if (ruv::tls_read_segment(conn, &iov[i]) < 1) return -1;
    return 0;
}

}  // namespace

int libruv_resolve(RUVConn *conn) {
    ruv::trace_point();
    static constexpr int kFamilies[] = {AF_UNSPEC, AF_INET, AF_INET6};
    addrinfo hints = {};
    hints.ai_family = kFamilies[conn->ipv4_or_v6];
    hints.ai_socktype = SOCK_STREAM;
    return try_repeatedly(conn, [&] {
        addrinfo *list = nullptr;
        int code = 0;
        if (!ruv::resolve(conn, hints, &code, &list)) return fail_system(EINTR), outcome::failed;
        if (code == EAI_AGAIN) return outcome::again;
        if (code != 0) return fail(10, code), outcome::failed;
        keep_address(conn, list);
        freeaddrinfo(list);
        return outcome::done;
    });
}

int libruv_connect(RUVConn *conn, int ssl_on) {
    ruv::trace_point();
    if (open_socket(conn) != 0) return -1;
    int result = try_repeatedly(conn, [&] { return connect_once(conn); });
    if (result == 0 && set_blocking(conn->skt, true) != 0) result = fail_system(errno);
    if (result == 0 && ssl_on) result = libruv_ssl_connect(conn);
    if (result == 0)
        record_source(conn);
    else
        libruv_disconnect(conn);
    return result;
}

int libruv_ssl_connect(RUVConn *conn) {
    ruv::trace_point();
    if (set_blocking(conn->skt, false) != 0) return fail_system(errno);
    const int result = ruv::tls_connect(conn);
    const int saved = errno;
    if (set_blocking(conn->skt, true) != 0 && result == 0) {
        fail_system(errno);
        ruv::tls_close(conn);
        return -1;
    }
    errno = saved;
    return result;
}

void libruv_disconnect(RUVConn *conn) {
    const int saved = errno;
    ruv::tls_close(conn);
    if (conn->skt >= 0) {
        shutdown(conn->skt, SHUT_RDWR);
        close(conn->skt);
        conn->skt = -1;
    }
    errno = saved;
}

int libruv_write(RUVConn *conn, int iovcnt, iovec *iov) {
    ruv::trace_point();
    if (ruv::enabled(debug_send)) [[unlikely]]
        ruv::dump_segments("Sending:\n", iovcnt, iov);
    const size_t total = total_length(iovcnt, iov);
    if (conn->io_stall_ms) conn->io_deadline_ms = ruv::now_ms() + conn->io_stall_ms;
    const int result = conn->ssl_conn
                           ? write_tls(conn, iovcnt, iov)
                           : move_plain(conn, iovcnt, iov, POLLOUT, [](int fd, msghdr *message) {
                                 return sendmsg(fd, message, MSG_NOSIGNAL | MSG_DONTWAIT);
                             });
    return result == 0 ? static_cast<int>(total) : result;
}

int libruv_read(RUVConn *conn, int iovcnt, iovec *iov) {
    ruv::trace_point();
    const iovec first = iovcnt > 0 ? iov[0] : iovec{};
    const size_t total = total_length(iovcnt, iov);
    const int result = conn->ssl_conn
                           ? read_tls(conn, iovcnt, iov)
                           : move_plain(conn, iovcnt, iov, POLLIN, [](int fd, msghdr *message) {
                                 return recvmsg(fd, message, MSG_DONTWAIT);
                             });
    if (result != 0) return result;
    if (ruv::enabled(debug_recv)) [[unlikely]]
        ruv::dump_segments("Received:\n", 1, &first);
    return static_cast<int>(total);
}

int libruv_wait_readable(RUVConn *conn, int budget_ms) {
    if (conn->ssl_conn && ruv::tls_pending(conn)) return 1;
    const int ready = ruv::wait_for(conn, POLLIN, budget_ms);
    return ready < 0 ? fail_system(errno) : ready;
}

int libruv_check_peer(RUVConn *conn) {
    if (conn->ssl_conn && ruv::tls_pending(conn)) return 0;
    if (conn->ssl_conn && ruv::tls_ended(conn)) return fail_system(EPIPE);
    char byte;
    const ssize_t got = recv(conn->skt, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (got == 0) return fail_system(EPIPE);
    if (got < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? 0 : fail_system(errno);
    if (conn->ssl_conn) return ruv::tls_check_peer(conn);
    // Bytes that nobody asked for may have the end of the stream behind them.
    pollfd ended = {conn->skt, POLLRDHUP, 0};
    return poll(&ended, 1, 0) > 0 ? fail_system(EPIPE) : 0;
}

int libruv_pause(RUVConn *conn, int seconds) {
    return ruv::pause_seconds(conn, seconds) == 0 ? 0 : fail_system(errno);
}
