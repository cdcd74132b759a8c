// What the library makes of a kernel that takes and gives a few bytes at a time, and of waits that
// run out: each call's result is written down here, so none of it depends on time or load.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "ruv/transport.h"
#include "tests/ruv/tls_kit.h"

namespace {

// What this thread's next calls do: move at most so many bytes, or fail with the negated errno.
// When the list is used up, or was never made, they are the real ones.
thread_local std::vector<int> *t_moves = nullptr;
thread_local size_t t_calls = 0;

// The waits of this thread, none of which takes time; null: they are real.
struct wait_seen {
    short events;
    int timeout_ms;
};
thread_local std::vector<wait_seen> *t_waits = nullptr;
thread_local bool t_handshakes_are_real = false;

template <class Real>
ssize_t move(const msghdr *message, Real real) {
    if (t_moves == nullptr || t_calls++ >= t_moves->size()) return real(message);
    const int what = (*t_moves)[t_calls - 1];
    if (what < 0) {
        errno = -what;
        return -1;
    }
    std::vector<iovec> parts(message->msg_iov, message->msg_iov + message->msg_iovlen);
    auto left = static_cast<size_t>(what);
    for (iovec &part : parts) {
        part.iov_len = std::min(part.iov_len, left);
        left -= part.iov_len;
    }
    msghdr less = *message;
    less.msg_iov = parts.data();
    return real(&less);
}

}  // namespace

extern "C" {
ssize_t __real_sendmsg(int fd, const msghdr *message, int flags);
ssize_t __wrap_sendmsg(int fd, const msghdr *message, int flags) {
    return move(message, [=](const msghdr *m) { return __real_sendmsg(fd, m, flags); });
}
ssize_t __real_recvmsg(int fd, msghdr *message, int flags);
ssize_t __wrap_recvmsg(int fd, msghdr *message, int flags) {
    return move(message, [=](const msghdr *m) {
        return __real_recvmsg(fd, const_cast<msghdr *>(m), flags);
    });
}
int __real_poll(pollfd *fds, nfds_t count, int timeout_ms);
int __wrap_poll(pollfd *fds, nfds_t count, int timeout_ms) {
    const bool connecting = (fds->events & POLLOUT) != 0;
    if (t_waits == nullptr || timeout_ms < 0 || connecting)
        return __real_poll(fds, count, timeout_ms);
    // A loaded host gets the time that it needs for a handshake which is not the question.
    if (t_handshakes_are_real && timeout_ms == 1) return __real_poll(fds, count, 60'000);
    t_waits->push_back({fds->events, timeout_ms});
    return 0;
}
}

namespace {

struct moves_guard {
    explicit moves_guard(std::vector<int> list) : moves(std::move(list)) {
        t_moves = &moves;
        t_calls = 0;
    }
    ~moves_guard() { t_moves = nullptr; }
    std::vector<int> moves;
};

struct waits_guard {
    waits_guard() { t_waits = &waits; }
    ~waits_guard() {
        t_waits = nullptr;
        t_handshakes_are_real = false;
    }
    std::vector<wait_seen> waits;
};

struct pair_conn {
    pair_conn() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        conn.skt = fds[0];
        other = fds[1];
    }
    ~pair_conn() {
        close(conn.skt);
        close(other);
    }
    std::string arrived() const {
        char bytes[64];
        const ssize_t got = recv(other, bytes, sizeof bytes, MSG_DONTWAIT);
        return std::string(bytes, got > 0 ? static_cast<size_t>(got) : 0);
    }
    RUVConn conn = {};
    int other = -1;
};

struct two_segments {
    char first[9] = "ABCDEFGH", second[9] = "ijklmnop";
    iovec iov[2] = {{first, 8}, {second, 8}};
};

TEST(ShortWrite, OneByteOfTwoSegmentsContinuesWithTheOtherFifteen) {
    pair_conn p;
    two_segments s;
    const moves_guard moves({1});
    EXPECT_EQ(libruv_write(&p.conn, 2, s.iov), 16);
    EXPECT_EQ(t_calls, 2u);
    EXPECT_EQ(p.arrived(), "ABCDEFGHijklmnop");
    EXPECT_EQ(s.iov[0].iov_len + s.iov[1].iov_len, 0u) << "consumed in place";
}

TEST(ShortWrite, EveryCut) {
    for (int first = 1; first <= 15; ++first)
        for (int second = 1; first + second <= 15; ++second) {
            pair_conn p;
            two_segments s;
            const moves_guard moves({first, second});
            EXPECT_EQ(libruv_write(&p.conn, 2, s.iov), 16);
            EXPECT_EQ(t_calls, 3u);
            EXPECT_EQ(p.arrived(), "ABCDEFGHijklmnop") << first << " " << second;
        }
}

TEST(ShortWrite, SignalsAndAFullSocketAreNoFailures) {
    pair_conn p;
    two_segments s;
    const moves_guard moves({-EINTR, 3, -EAGAIN, -EINTR, 7});
    EXPECT_EQ(libruv_write(&p.conn, 2, s.iov), 16);
    EXPECT_EQ(t_calls, 6u);
    EXPECT_EQ(p.arrived(), "ABCDEFGHijklmnop");
}

TEST(ShortWrite, AFailureInTheMiddleIsASystemError) {
    for (const int error : {ECONNRESET, ETIMEDOUT, EPIPE, EBADF}) {
        pair_conn p;
        two_segments s;
        const moves_guard moves({5, -error});
        clear_error();
        EXPECT_EQ(libruv_write(&p.conn, 2, s.iov), -1);
        EXPECT_EQ(ruverrno, 3);
        EXPECT_EQ(ruverrno2, error);
        EXPECT_EQ(errno, error);
    }
}

TEST(ShortRead, ByteForByteWithSignalsBetween) {
    pair_conn p;
    ASSERT_EQ(send(p.other, "12345678", 8, 0), 8);
    const moves_guard moves({1, -EINTR, 1, 1, -EAGAIN, 2});
    char got[9] = "";
    iovec iov = {got, 8};
    EXPECT_EQ(libruv_read(&p.conn, 1, &iov), 8);
    EXPECT_STREQ(got, "12345678");
    EXPECT_EQ(t_calls, 7u);
}

TEST(ShortRead, AFailureInTheMiddleIsASystemError) {
    pair_conn p;
    ASSERT_EQ(send(p.other, "12345678", 8, 0), 8);
    const moves_guard moves({4, -ECONNRESET});
    char got[9] = "";
    iovec iov = {got, 8};
    clear_error();
    EXPECT_EQ(libruv_read(&p.conn, 1, &iov), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, ECONNRESET);
}

// ---- Waits.

TEST(Waits, ASilentHandshakeIsAThousandMilliseconds) {
    fake::receiver receiver([](fake::peer &p) { p.drain(); });
    conn_ptr conn = make_conn(receiver.port(), 1);
    conn->ruv_ver = 1;  // one connection without a probe
    clear_error();
    const waits_guard seen;
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 19);
    EXPECT_EQ(conn->skt, -1);
    ASSERT_EQ(seen.waits.size(), 1000u);
    for (size_t i = 0; i < seen.waits.size(); ++i) {
        EXPECT_EQ(seen.waits[i].timeout_ms, 1);
        // After the first time-out the rest are plain pauses.
        EXPECT_EQ(seen.waits[i].events, i == 0 ? POLLIN : 0);
    }
}

TEST(Waits, AStopEndsAHandshakeInAQuarterOfASecond) {
    fake::receiver receiver([](fake::peer &p) { p.drain(); });
    conn_ptr conn = make_conn(receiver.port(), 1);
    conn->ruv_ver = 1;
    static int questions;
    questions = 0;
    RUVSetInterrupt(
        conn.get(), [](void *) { return ++questions; }, nullptr);
    clear_error();
    const waits_guard seen;
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EINTR);
    EXPECT_EQ(conn->skt, -1);
    EXPECT_EQ(conn->ssl_conn, nullptr);
    EXPECT_LE(seen.waits.size(), 250u);
    ASSERT_FALSE(seen.waits.empty());
    for (const wait_seen &wait : seen.waits) EXPECT_EQ(wait.timeout_ms, 1);
    EXPECT_EQ(questions, 1);
}

// An encrypted Receiver that never answers, then the same one asked in plain: the second wait has
// what the first left of the ten seconds, which is nothing.
TEST(Waits, BothProbesShareTheirTime) {
    const os_guard guard;
    ruv::os.probe_budget_ms = 10'000;
    const tls::identity self = tls::make_identity("server", "DNS:localhost", nullptr);
    tls::server_log log;
    tls::server_options options;
    options.self = &self;
    fake::receiver receiver(tls::over_tls(options, &log, [](fake::peer &p) { p.drain(); }));
    conn_ptr conn = make_conn(receiver.port(), 1, 2);
    clear_error();
    {
        const waits_guard seen;
        t_handshakes_are_real = true;
        EXPECT_EQ(RUVOpen(conn.get()), -1);
        ASSERT_EQ(seen.waits.size(), 2u);
        EXPECT_EQ(seen.waits[0].timeout_ms, 10'000);
        EXPECT_EQ(seen.waits[1].timeout_ms, 0);
    }
    EXPECT_EQ(ruverrno, 8);
    EXPECT_EQ(receiver.wait_connections(2), 2);
    receiver.stop();
    X509_free(self.cert);
    EVP_PKEY_free(self.key);
}

}  // namespace
