#include "ruv/transport.h"

#include <fcntl.h>
#include <netinet/tcp.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include "tests/ruv/link_kit.h"

namespace {

// A handle on one end of a socket pair.
struct pair_conn {
    RUVConn conn = {};
    int other = -1;
    pair_conn() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        conn.skt = fds[0];
        other = fds[1];
    }
    ~pair_conn() {
        ::close(conn.skt);
        if (other >= 0) ::close(other);
    }
    void close_other() {
        ::close(other);
        other = -1;
    }
};

int stop_at_once(void *) {
    return 1;
}

// Says stop from its n-th question on.
struct countdown {
    std::atomic<int> questions{0};
    int stop_at;
    static int ask(void *self) {
        auto *c = static_cast<countdown *>(self);
        return ++c->questions >= c->stop_at;
    }
};

TEST(Write, GathersSegmentsAndConsumesThem) {
    pair_conn p;
    char a[] = "magic", b[] = "", c[] = "body";
    iovec iov[3] = {{a, 5}, {b, 0}, {c, 4}};
    EXPECT_EQ(libruv_write(&p.conn, 3, iov), 9);
    char got[16] = {};
    EXPECT_EQ(recv(p.other, got, sizeof got, 0), 9);
    EXPECT_STREQ(got, "magicbody");
    for (const iovec &segment : iov) EXPECT_EQ(segment.iov_len, 0u);
    EXPECT_EQ(iov[2].iov_base, c + 4);
}

TEST(Write, NothingIsWrittenForNothing) {
    pair_conn p;
    EXPECT_EQ(libruv_write(&p.conn, 0, nullptr), 0);
}

TEST(Write, ContinuesAfterPartialWrites) {
    pair_conn p;
    const int small = 4096;
    setsockopt(p.conn.skt, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::string first(300'001, 'a'), second(1, 'b'), third(200'003, 'c');
    iovec iov[3] = {{first.data(), first.size()}, {second.data(), 1}, {third.data(), third.size()}};
    std::string got;
    std::thread reader([&] {
        char buffer[777];
        ssize_t part;
        while ((part = recv(p.other, buffer, sizeof buffer, 0)) > 0)
            got.append(buffer, static_cast<size_t>(part));
    });
    EXPECT_EQ(libruv_write(&p.conn, 3, iov), 500'005);
    shutdown(p.conn.skt, SHUT_WR);
    reader.join();
    EXPECT_TRUE(got == first + second + third);
}

TEST(Write, AClosedPeerIsAnErrorAndNoSignal) {
    pair_conn p;
    p.close_other();
    char byte = 0;
    iovec iov = {&byte, 1};
    signal(SIGPIPE, SIG_DFL);
    clear_error();
    EXPECT_EQ(libruv_write(&p.conn, 1, &iov), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EPIPE);
    EXPECT_EQ(errno, EPIPE);
}

TEST(Read, FillsItsSegmentFromPieces) {
    pair_conn p;
    std::thread writer([&] {
        for (const char byte : std::string("abcdefgh")) EXPECT_EQ(send(p.other, &byte, 1, 0), 1);
    });
    char got[9] = {};
    iovec iov = {got, 8};
    EXPECT_EQ(libruv_read(&p.conn, 1, &iov), 8);
    writer.join();
    EXPECT_STREQ(got, "abcdefgh");
}

TEST(Read, EndOfStreamIsASystemError) {
    pair_conn p;
    EXPECT_EQ(send(p.other, "abc", 3, 0), 3);
    p.close_other();
    char got[4];
    iovec iov = {got, 4};
    clear_error();
    EXPECT_EQ(libruv_read(&p.conn, 1, &iov), -1);
    EXPECT_EQ(ruverrno, 3);
}

TEST(Read, ADeadlineEndsASilentPeersWait) {
    pair_conn p;
    EXPECT_EQ(send(p.other, "abc", 3, 0), 3);
    p.conn.io_deadline_ms = ruv::now_ms() + 20;
    char got[4];
    iovec iov = {got, 4};
    clear_error();
    EXPECT_EQ(libruv_read(&p.conn, 1, &iov), -1);
    EXPECT_EQ(ruverrno, 4);
}

void ignore_signal(int) {
}

TEST(Read, ASignalDoesNotEndTheWait) {
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = ignore_signal;
    sigaction(SIGUSR1, &action, &before);
    pair_conn p;
    const pthread_t reader = pthread_self();
    std::thread writer([&] {
        for (int i = 0; i < 20; ++i) {
            usleep(5'000);
            pthread_kill(reader, SIGUSR1);
        }
        EXPECT_EQ(send(p.other, "x", 1, 0), 1);
    });
    char got = 0;
    iovec iov = {&got, 1};
    EXPECT_EQ(libruv_read(&p.conn, 1, &iov), 1);
    writer.join();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST(Interrupt, EndsABlockedRead) {
    pair_conn p;
    countdown stop{{}, 2};
    RUVSetInterrupt(&p.conn, countdown::ask, &stop);
    char got;
    iovec iov = {&got, 1};
    clear_error();
    EXPECT_EQ(libruv_read(&p.conn, 1, &iov), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EINTR);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(stop.questions, 2);
}

TEST(Interrupt, EndsABlockedWrite) {
    pair_conn p;
    RUVSetInterrupt(&p.conn, stop_at_once, nullptr);
    std::string much(64 << 20, 'x');
    iovec iov = {much.data(), much.size()};
    clear_error();
    EXPECT_EQ(libruv_write(&p.conn, 1, &iov), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EINTR);
}

TEST(Interrupt, IsHeardAlthoughThePeerTrickles) {
    pair_conn p;
    RUVSetInterrupt(&p.conn, stop_at_once, nullptr);
    std::atomic<bool> over{false};
    std::thread writer([&] {
        while (!over && send(p.other, "x", 1, MSG_NOSIGNAL) == 1) usleep(20'000);
    });
    std::string much(1 << 20, 0);
    iovec iov = {much.data(), much.size()};
    clear_error();
    EXPECT_EQ(libruv_read(&p.conn, 1, &iov), -1);
    EXPECT_EQ(ruverrno2, EINTR);
    over = true;
    writer.join();
}

TEST(Interrupt, LeavesAReadyTransferAlone) {
    pair_conn p;
    RUVSetInterrupt(&p.conn, stop_at_once, nullptr);
    EXPECT_EQ(send(p.other, "x", 1, 0), 1);
    char got;
    iovec iov = {&got, 1};
    EXPECT_EQ(libruv_read(&p.conn, 1, &iov), 1);
    EXPECT_EQ(libruv_write(&p.conn, 0, nullptr), 0);
}

TEST(Interrupt, EndsAPause) {
    RUVConn conn = {};
    RUVSetInterrupt(&conn, stop_at_once, nullptr);
    clear_error();
    EXPECT_EQ(libruv_pause(&conn, 3600), -1);
    EXPECT_EQ(ruverrno2, EINTR);
}

TEST(Dump, ShowsHexAndCharacters) {
    pair_conn p;
    unsigned char bytes[20];
    for (unsigned char i = 0; i < 20; ++i) bytes[i] = static_cast<unsigned char>(0x3A + i);
    bytes[1] = 0xFF;
    bytes[2] = ' ';
    bytes[3] = 0x7F;
    iovec iov[2] = {{bytes, 20}, {bytes, 0}};
    char pointer[32];
    snprintf(pointer, sizeof pointer, "%p", static_cast<void *>(bytes));
    RUVSetLogging(0x02);
    const std::string text = stderr_of([&] { libruv_write(&p.conn, 2, iov); });
    RUVSetLogging(0);
    const std::string where = std::string(", ptr: ") + pointer + "\n";
    EXPECT_EQ(text, "Sending:\nSegment[  0]: len:    20" + where +
                        "\t[    0]:  3a ff 20 7f  3e 3f 40 41   42 43 44 45  46 47 48 49 " +
                        "         :. .>?@A BCDEFGHI\n" + "\t[   16]:  4a 4b 4c 4d " +
                        std::string(40, ' ') + "         JKLM\n" + "Segment[  1]: len:     0" +
                        where);
}

TEST(Dump, OfAReadShowsTheWholeSegment) {
    pair_conn p;
    EXPECT_EQ(send(p.other, "OKAY", 4, 0), 4);
    char got[4];
    iovec iov = {got, 4};
    RUVSetLogging(0x04);
    const std::string text = stderr_of([&] { libruv_read(&p.conn, 1, &iov); });
    RUVSetLogging(0);
    EXPECT_EQ(text.rfind("Received:\nSegment[  0]: len:     4, ptr: ", 0), 0u) << text;
    EXPECT_NE(text.find("\t[    0]:  4f 4b 41 59 "), std::string::npos) << text;
}

TEST(Peer, AClosedIdlePeerIsNoticed) {
    EXPECT_EQ(RUVCheckPeer(nullptr), -1);
    EXPECT_EQ(ruverrno, 2);
    RUVConn closed = {};
    closed.skt = -1;
    EXPECT_EQ(RUVCheckPeer(&closed), -1);
    EXPECT_EQ(ruverrno, 22);

    pair_conn p;
    EXPECT_EQ(RUVCheckPeer(&p.conn), 0);
    EXPECT_EQ(send(p.other, "x", 1, 0), 1);
    EXPECT_EQ(RUVCheckPeer(&p.conn), 0);
    char byte;
    EXPECT_EQ(recv(p.conn.skt, &byte, 1, 0), 1);
    p.close_other();
    clear_error();
    EXPECT_EQ(RUVCheckPeer(&p.conn), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EPIPE);
}

TEST(Peer, AnEndBehindUnreadBytesIsNoticed) {
    pair_conn p;
    EXPECT_EQ(send(p.other, "x", 1, 0), 1);
    p.close_other();
    clear_error();
    EXPECT_EQ(RUVCheckPeer(&p.conn), -1);
    EXPECT_EQ(ruverrno2, EPIPE);
}

// ---- Resolver and connect, with their calls replaced.

std::atomic<int> g_resolves;
int g_connects, g_sleeps, g_slept_ms;
int64_t g_clock_ms;
int64_t g_call_ms;  // how long a replaced call pretends to take

struct fake_os : os_guard {
    fake_os() {
        g_connects = g_sleeps = g_slept_ms = 0;
        g_resolves = 0;
        g_clock_ms = 1'000;
        g_call_ms = 0;
        ruv::os.sleep_ms = [](int milliseconds) {
            ++g_sleeps;
            g_slept_ms += milliseconds;
            g_clock_ms += milliseconds;
        };
        ruv::os.now_ms = [] { return g_clock_ms; };
    }
};

template <int Code>
int resolve_with(const char *, const char *, const addrinfo *, addrinfo **) {
    ++g_resolves;
    g_clock_ms += g_call_ms;
    return Code;
}

TEST(Resolve, TriesSixTimesFiveSecondsApart) {
    const fake_os os;
    ruv::os.resolve = resolve_with<EAI_AGAIN>;
    clear_error();
    EXPECT_EQ(RUVAllocConn("host", 1, 0, 0, 0), nullptr);
    EXPECT_EQ(ruverrno, 4);
    EXPECT_EQ(g_resolves, 6);
    EXPECT_EQ(g_sleeps, 5);
    EXPECT_EQ(g_slept_ms, 25'000);
}

TEST(Resolve, StopsTryingAfterTwentyNineSeconds) {
    const fake_os os;
    g_call_ms = 10'000;
    ruv::os.resolve = resolve_with<EAI_AGAIN>;
    clear_error();
    EXPECT_EQ(RUVAllocConn("host", 1, 0, 0, 0), nullptr);
    EXPECT_EQ(ruverrno, 4);
    EXPECT_EQ(g_resolves, 2);
}

TEST(Resolve, AnyOtherFailureEndsItAtOnce) {
    const fake_os os;
    ruv::os.resolve = resolve_with<EAI_NONAME>;
    clear_error();
    EXPECT_EQ(RUVAllocConn("host", 1, 0, 0, 0), nullptr);
    EXPECT_EQ(ruverrno, 10);
    EXPECT_EQ(ruverrno2, EAI_NONAME);
    EXPECT_EQ(g_resolves, 1);
    EXPECT_EQ(g_sleeps, 0);
}

int stop_after_a_try(void *) {
    return g_resolves > 0;
}

TEST(Resolve, AnInterruptOfTheThreadEndsThePause) {
    const fake_os os;
    ruv::os.resolve = resolve_with<EAI_AGAIN>;
    EXPECT_EQ(RUVSetInterrupt(nullptr, stop_after_a_try, nullptr), 0);
    clear_error();
    EXPECT_EQ(RUVAllocConn("host", 1, 0, 0, 0), nullptr);
    EXPECT_EQ(RUVSetInterrupt(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EINTR);
    EXPECT_EQ(g_resolves, 1);
}

// A resolver that is silent until it is let go. What it then says is nobody's.
std::atomic<bool> g_asked, g_let_go, g_answered, g_quiet;

int resolve_late(const char *, const char *, const addrinfo *hints, addrinfo **list) {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    g_quiet = sigismember(&blocked, SIGTERM) && sigismember(&blocked, SIGINT);
    g_asked = true;
    while (!g_let_go) usleep(1'000);
    const int code = getaddrinfo("127.0.0.1", nullptr, hints, list);
    g_answered = true;
    return code;
}

int stop_when_asked(void *) {
    return g_asked;
}

TEST(Resolve, AnInterruptEndsTheWaitForASilentResolver) {
    const os_guard guard;
    g_asked = g_let_go = g_answered = g_quiet = false;
    ruv::os.resolve = resolve_late;
    EXPECT_EQ(RUVSetInterrupt(nullptr, stop_when_asked, nullptr), 0);
    clear_error();
    EXPECT_EQ(RUVAllocConn("host", 1, 0, 0, 0), nullptr);
    EXPECT_EQ(RUVSetInterrupt(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EINTR);
    EXPECT_FALSE(g_answered);
    EXPECT_TRUE(g_quiet);
    g_let_go = true;
    for (int i = 0; i < 3000 && !g_answered; ++i) usleep(10'000);
    EXPECT_TRUE(g_answered);
}

int never_stop(void *) {
    return 0;
}

TEST(Resolve, AnAnswerIsWaitedForWhereNobodyInterrupts) {
    const os_guard guard;
    g_asked = g_answered = false;
    g_let_go = true;
    ruv::os.resolve = resolve_late;
    EXPECT_EQ(RUVSetInterrupt(nullptr, never_stop, nullptr), 0);
    const conn_ptr conn(RUVAllocConn("host", 7, 1, 0, 0));
    EXPECT_EQ(RUVSetInterrupt(nullptr, nullptr, nullptr), 0);
    ASSERT_NE(conn, nullptr);
    const auto *address = reinterpret_cast<const sockaddr_in *>(&conn->conn_ai_addr);
    EXPECT_EQ(ntohl(address->sin_addr.s_addr), 0x7F000001u);
}

addrinfo g_hints;

TEST(Resolve, AsksForStreamsOfTheFamily) {
    const int families[] = {AF_UNSPEC, AF_INET, AF_INET6};
    for (int mode = 0; mode <= 2; ++mode) {
        const fake_os os;
        ruv::os.resolve = [](const char *, const char *service, const addrinfo *hints,
                             addrinfo **) {
            EXPECT_EQ(service, nullptr);
            g_hints = *hints;
            return EAI_FAIL;
        };
        EXPECT_EQ(RUVAllocConn("host", 1, mode, 0, 0), nullptr);
        EXPECT_EQ(g_hints.ai_family, families[mode]);
        EXPECT_EQ(g_hints.ai_socktype, SOCK_STREAM);
    }
}

TEST(Resolve, KeepsTheFirstAddressWithThePort) {
    conn_ptr v4(RUVAllocConn("127.0.0.1", 0x1234, 0, 0, 0));
    ASSERT_NE(v4, nullptr);
    EXPECT_EQ(v4->conninfo.ai_addr, reinterpret_cast<sockaddr *>(&v4->conn_ai_addr));
    EXPECT_EQ(v4->conninfo.ai_next, nullptr);
    EXPECT_EQ(v4->conninfo.ai_canonname, nullptr);
    const auto *address = reinterpret_cast<const sockaddr_in *>(&v4->conn_ai_addr);
    EXPECT_EQ(address->sin_family, AF_INET);
    EXPECT_EQ(ntohs(address->sin_port), 0x1234);
    EXPECT_EQ(ntohl(address->sin_addr.s_addr), 0x7F000001u);
    conn_ptr v6(RUVAllocConn("::1", 80, 2, 0, 0));
    ASSERT_NE(v6, nullptr);
    EXPECT_EQ(v6->conn_ai_addr.sin6_family, AF_INET6);
    EXPECT_EQ(ntohs(v6->conn_ai_addr.sin6_port), 80);
}

// Two addresses, the first one with a canonical name.
int resolve_two(const char *, const char *service, const addrinfo *hints, addrinfo **list) {
    addrinfo named = *hints;
    named.ai_flags |= AI_CANONNAME;
    const int code = getaddrinfo("127.0.0.5", service, &named, list);
    return code != 0 ? code : getaddrinfo("127.0.0.6", service, hints, &(*list)->ai_next);
}

TEST(Resolve, KeepsNothingButTheFirstOfSeveralAddresses) {
    const os_guard guard;
    ruv::os.resolve = resolve_two;
    conn_ptr conn(RUVAllocConn("two.example", 80, 1, 0, 0));
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(conn->conninfo.ai_next, nullptr);
    EXPECT_EQ(conn->conninfo.ai_canonname, nullptr);
    const auto *address = reinterpret_cast<const sockaddr_in *>(&conn->conn_ai_addr);
    EXPECT_EQ(ntohl(address->sin_addr.s_addr), 0x7F000005u);
}

template <int Errno>
int connect_with(int, const sockaddr *, socklen_t) {
    ++g_connects;
    g_clock_ms += g_call_ms;
    errno = Errno;
    return -1;
}

TEST(Connect, TriesAgainOnlyForEagain) {
    const fake_os os;
    conn_ptr conn = make_conn(1);
    ruv::os.connect = connect_with<EAGAIN>;
    clear_error();
    EXPECT_EQ(libruv_connect(conn.get(), 0), -1);
    EXPECT_EQ(ruverrno, 4);
    EXPECT_EQ(g_connects, 6);
    EXPECT_EQ(conn->skt, -1);

    g_connects = 0;
    g_call_ms = 30'000;
    EXPECT_EQ(libruv_connect(conn.get(), 0), -1);
    EXPECT_EQ(ruverrno, 4);
    EXPECT_EQ(g_connects, 1);

    g_connects = 0;
    ruv::os.connect = connect_with<ENETUNREACH>;
    EXPECT_EQ(libruv_connect(conn.get(), 0), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, ENETUNREACH);
    EXPECT_EQ(g_connects, 1);
    EXPECT_EQ(conn->skt, -1);
}

TEST(Connect, AnInterruptEndsThePauseBetweenTries) {
    const fake_os os;
    conn_ptr conn = make_conn(1);
    RUVSetInterrupt(conn.get(), stop_at_once, nullptr);
    ruv::os.connect = connect_with<EAGAIN>;
    clear_error();
    EXPECT_EQ(libruv_connect(conn.get(), 0), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EINTR);
    EXPECT_EQ(g_connects, 1);
    EXPECT_EQ(conn->skt, -1);
}

TEST(Pause, LastsAsLongAsAsked) {
    const int64_t start = ruv::now_ms();
    ruv::os.sleep_ms(30);
    EXPECT_GE(ruv::now_ms() - start, 29);
}

TEST(Connect, ARefusalIsReportedWithItsErrno) {
    int port = 0;
    {
        fake::receiver gone([](fake::peer &) {});
        port = gone.port();
    }
    conn_ptr conn = make_conn(port);
    clear_error();
    EXPECT_EQ(libruv_connect(conn.get(), 0), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, ECONNREFUSED);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(conn->skt, -1);
}

TEST(Connect, RecordsTheSourceAddressAndKeepsTheSocketToItself) {
    fake::receiver r([](fake::peer &p) { p.drain(); });
    conn_ptr conn = make_conn(r.port());
    ASSERT_EQ(libruv_connect(conn.get(), 0), 0);
    EXPECT_STREQ(conn->ip_addr, "127.0.0.1");
    EXPECT_EQ(fcntl(conn->skt, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(conn->skt, F_GETFL) & O_NONBLOCK, 0);
}

TEST(Connect, AnIPv6SourceIsCutToItsFirstHalf) {
    fake::receiver r({[](fake::peer &p) { p.drain(); }}, AF_INET6);
    if (!r.usable()) GTEST_SKIP() << "no IPv6 loopback on this host";
    conn_ptr conn(RUVAllocConn("::1", r.port(), 2, 0, 0));
    ASSERT_NE(conn, nullptr);
    ASSERT_EQ(libruv_connect(conn.get(), 0), 0);
    // ::1 has its only bit in the half that is not asked for.
    EXPECT_STREQ(conn->ip_addr, "::");
}

TEST(Connect, AnInterruptEndsTheWait) {
    // A listener whose queue is full does not answer.
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), size), 0);
    ASSERT_EQ(listen(listener, 0), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size), 0);
    std::vector<conn_ptr> handles;
    int result = 0;
    for (int i = 0; i < 8 && result == 0; ++i) {
        handles.push_back(make_conn(ntohs(address.sin_port)));
        RUVSetInterrupt(handles.back().get(), stop_at_once, nullptr);
        clear_error();
        result = libruv_connect(handles.back().get(), 0);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EINTR);
    EXPECT_EQ(handles.back()->skt, -1);
    ::close(listener);
}

}  // namespace
