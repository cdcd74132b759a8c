#include "ruv/ruvlibsetters.h"
#include "ruv/trace.h"
#include "ruv/transport.h"
#include "tests/ruv/tls_kit.h"

namespace {

tls::identities &ids() {
    static tls::identities all;
    return all;
}

tls::server_options serving(const tls::identity &self, int min = TLS1_VERSION,
                            int max = TLS1_3_VERSION) {
    return {&self, min, max, nullptr};
}

int send_text(RUVConn *conn, const std::string &text) {
    void *record = RUVAllocData(conn, 3, 0, 0);
    RUVSyslogSet_message(record, text.data(), static_cast<int>(text.size()));
    const int result = RUVSendData(conn, record, nullptr);
    RUVFreeData(record);
    return result;
}

// Serves records and keeps their texts.
struct collected {
    std::mutex lock;
    std::string bytes;
    fake::receiver::script script() {
        return [this](fake::peer &p) {
            const fake::version6 v;
            for (;;) {
                const fake::header h = fake::read_header(p);
                if (!h.valid) return;
                if (h.type == 0 && h.version == 0) p.send(fake::kOkay);
                if (h.type == 0 && h.version == 2)
                    p.send(fake::kOkay + fake::version_list(v.versions));
                if (h.type != 3) continue;
                const std::string block = p.read(8);
                const std::string text = p.read(static_cast<uint8_t>(block[6]));
                const std::lock_guard<std::mutex> guard(lock);
                bytes += text + "|";
            }
        };
    }
    std::string wait(size_t count) {
        for (int i = 0; i < 3000; ++i) {
            {
                const std::lock_guard<std::mutex> guard(lock);
                if (bytes.size() >= count) return bytes;
            }
            usleep(10'000);
        }
        const std::lock_guard<std::mutex> guard(lock);
        return bytes;
    }
};

// A default handshake has a second, which a busy host may not give it: the probe then takes the
// Receiver for one of the older generation. Tries until it was answered.
conn_ptr open_tls(int port, int mode) {
    conn_ptr conn;
    for (int i = 0; i < 30; ++i) {
        conn = make_conn(port, mode);
        if (RUVOpen(conn.get()) == 0 && conn->ruv_ver == 2) return conn;
    }
    ADD_FAILURE() << text_of(conn.get(), ruverrno);
    return conn;
}

// ---- The default: TLS 1.0 with a certificate that nobody checks.

TEST(Tls, RequiredFromTheFirstByte) {
    tls::server_log log;
    collected got;
    fake::receiver r(
        tls::over_tls(serving(ids().stranger, TLS1_VERSION, TLS1_VERSION), &log, got.script()));
    conn_ptr conn = open_tls(r.port(), 1);
    EXPECT_EQ(conn->ruv_ver, 2);
    EXPECT_NE(conn->ssl_conn, nullptr);
    EXPECT_EQ(log.version, TLS1_VERSION);
    EXPECT_EQ(send_text(conn.get(), "over tls"), 32);
    EXPECT_EQ(got.wait(9), "over tls|");
    for (const int generation : {1, 2}) {
        conn->ruv_ver = generation;
        EXPECT_EQ(RUVEnableSSL(conn.get()), -1);
        EXPECT_EQ(ruverrno, 9) << "whatever the generation";
    }
    EXPECT_EQ(RUVCheckPeer(conn.get()), 0);
    const std::string text = stderr_of([&] { RUVPrintConn(conn.get()); });
    EXPECT_NE(text.find("\tConnected: Yes, SSL: SSL\n"), std::string::npos);
    RUVClose(conn.get());
    EXPECT_EQ(conn->ssl_conn, nullptr);
    r.stop();
    EXPECT_EQ(log.clean_closes, 0) << "the shutdown is quiet";
}

TEST(Tls, SpeaksToModernReceiversWithItsOldVersion) {
    tls::server_log log;
    fake::receiver r(tls::over_tls(serving(ids().server), &log, fake::serve()));
    conn_ptr conn = open_tls(r.port(), 1);
    EXPECT_EQ(log.version, TLS1_VERSION);
}

TEST(Tls, OnRequest) {
    tls::server_log log;
    collected got;
    fake::receiver r(tls::on_request(serving(ids().stranger), &log, got.script()));
    conn_ptr conn = open_tls(r.port(), 2);
    EXPECT_NE(conn->ssl_conn, nullptr);
    EXPECT_EQ(conn->force_ssl, 2);
    EXPECT_EQ(send_text(conn.get(), "later"), 29);
    EXPECT_EQ(got.wait(6), "later|");
}

TEST(Tls, EnabledAfterwards) {
    tls::server_log log;
    collected got;
    fake::receiver r(tls::on_request(serving(ids().stranger), &log, got.script()));
    conn_ptr conn;
    int result = -1;
    for (int i = 0; i < 30 && result != 0; ++i) {
        conn = open_conn(r.port());
        EXPECT_EQ(conn->ssl_conn, nullptr);
        result = RUVEnableSSL(conn.get());
        ASSERT_TRUE(result == 0 || ruverrno == 19) << text_of(conn.get(), ruverrno);
    }
    ASSERT_EQ(result, 0);
    EXPECT_EQ(conn->force_ssl, 2);
    EXPECT_EQ(send_text(conn.get(), "now secret"), 34);
    EXPECT_EQ(got.wait(11), "now secret|");
}

TEST(Tls, AnEncryptedReceiverIsAMismatchForAPlainHandle) {
    tls::server_log log;
    fake::receiver r(tls::over_tls(serving(ids().stranger), &log, fake::serve()));
    conn_ptr conn;
    int result = 0;
    for (int i = 0; i < 30 && result == 0; ++i) {
        conn = make_conn(r.port());
        result = RUVOpen(conn.get());
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(ruverrno, 7) << ruverrno2;
    EXPECT_EQ(conn->skt, -1);
}

TEST(Tls, GarbageIsATlsErrorWithItsValues) {
    fake::receiver r([](fake::peer &p) {
        p.read(10);
        p.send(std::string(100, 'x'));
        p.drain();
    });
    conn_ptr conn = make_conn(r.port(), 1);
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 6);
    EXPECT_EQ(ruverrno2, -1);
    EXPECT_EQ(ruverrno3, SSL_ERROR_SSL);
    EXPECT_NE(ruverrno4, 0);
    EXPECT_EQ(text_of(conn.get(), 6),
              "SSL library error (ret = -1, SSL_get_error = 1, "
              "ERR_get_error = " +
                  std::to_string(ruverrno4) + ")");
    // Only a handshake that timed out is followed by an attempt without TLS.
    EXPECT_EQ(r.connections(), 1);
}

TEST(Tls, AVanishedPeerIsAnErrorAndNoSignal) {
    signal(SIGPIPE, SIG_DFL);
    tls::server_log log;
    fake::receiver r(tls::over_tls(serving(ids().stranger), &log, [](fake::peer &p) {
        const fake::version6 v;
        fake::serve_one(p, v);
        fake::serve_one(p, v);
    }));
    conn_ptr conn = open_tls(r.port(), 1);
    for (int i = 0; i < 3000 && RUVCheckPeer(conn.get()) == 0; ++i) usleep(10'000);
    EXPECT_EQ(RUVCheckPeer(conn.get()), -1);
    std::string block(65'536, 'x');
    int result = 1;
    clear_error();
    for (int i = 0; i < 100 && result > 0; ++i) {
        iovec iov = {block.data(), block.size()};
        result = libruv_write(conn.get(), 1, &iov);
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(ruverrno, 6);
    clear_error();
    char byte;
    iovec iov = {&byte, 1};
    EXPECT_LT(libruv_read(conn.get(), 1, &iov), 0);
    EXPECT_EQ(ruverrno, 6);
}

// What ends a session is read once; the end of the stream may come later, or never.
TEST(Tls, AnEndedSessionStaysEnded) {
    tls::server_log log;
    tls::server_options options = serving(ids().stranger);
    options.lingers = true;
    fake::receiver r(tls::over_tls(options, &log, [](fake::peer &p) {
        const fake::version6 v;
        fake::serve_one(p, v);
        fake::serve_one(p, v);
    }));
    conn_ptr conn = open_tls(r.port(), 1);
    for (int i = 0; i < 3000 && RUVCheckPeer(conn.get()) == 0; ++i) usleep(10'000);
    for (int i = 0; i < 3; ++i) {
        clear_error();
        EXPECT_EQ(RUVCheckPeer(conn.get()), -1);
        EXPECT_EQ(ruverrno, 3);
        EXPECT_EQ(ruverrno2, EPIPE);
    }
}

TEST(Tls, AnInterruptEndsABlockedRead) {
    tls::server_log log;
    fake::receiver r(tls::over_tls(serving(ids().stranger), &log, fake::serve()));
    conn_ptr conn = open_tls(r.port(), 1);
    RUVSetInterrupt(
        conn.get(), [](void *) { return 1; }, nullptr);
    char byte;
    iovec iov = {&byte, 1};
    clear_error();
    EXPECT_EQ(libruv_read(conn.get(), 1, &iov), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EINTR);
}

TEST(Tls, ALargeTransferArrivesWhole) {
    tls::server_log log;
    std::string got;
    fake::receiver r(tls::over_tls(serving(ids().stranger), &log, [&](fake::peer &p) {
        const fake::version6 v;
        fake::serve_one(p, v);
        fake::serve_one(p, v);
        got = p.read(3'000'000);
        p.send(fake::kOkay);
    }));
    conn_ptr conn = open_tls(r.port(), 1);
    std::string first(1'000'000, 'a'), second(2'000'000, 'b');
    iovec iov[2] = {{first.data(), first.size()}, {second.data(), second.size()}};
    ASSERT_EQ(libruv_write(conn.get(), 2, iov), 3'000'000);
    char answer[8];
    iovec in = {answer, 8};
    EXPECT_EQ(libruv_read(conn.get(), 1, &in), 8);
    r.stop();
    EXPECT_TRUE(got == first + second);
}

TEST(Tls, EachSegmentIsARecordOfItsOwn) {
    tls::server_log log;
    collected got;
    fake::receiver r(tls::over_tls(serving(ids().stranger), &log, got.script()));
    conn_ptr conn = open_tls(r.port(), 1);
    log.take_records();
    ASSERT_EQ(send_text(conn.get(), "four records"), 36);
    got.wait(13);
    EXPECT_EQ(log.take_records(), (std::vector<int>{8, 8, 8, 12}));
}

TEST(Tls, ThreadsShareTheContextAndNoErrors) {
    tls::server_log log;
    const tls::identity &self = ids().stranger;
    fake::receiver r(tls::over_tls(serving(self), &log, fake::serve()));
    std::vector<std::thread> threads;
    for (int number = 1; number <= 4; ++number) {
        threads.emplace_back([&r, number] {
            for (int round = 0; round < 5; ++round) {
                conn_ptr conn = open_tls(r.port(), 1);
                uint16_t major = 0, minor, dot;
                char patch[2];
                uint64_t build;
                EXPECT_EQ(RUVGetReceiverVer(conn.get(), &major, &minor, &dot, patch, &build), 0);
                EXPECT_EQ(major, 11);
                // Each thread fails in its own way and finds its own code.
                RUVAllocConn("::1", 1, number == 1 ? 3 : 0, number == 2 ? 3 : 0,
                             number >= 3 ? 3 : 0);
                const int argument = ruverrno2;
                RUVClose(conn.get());
                EXPECT_EQ(RUVEnableSSL(conn.get()), -1);
                EXPECT_EQ(ruverrno, 22);
                EXPECT_EQ(argument, number == 1 ? 3 : number == 2 ? 4 : 5);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
}

// ---- RUVSetTLSOptions.

struct wanted {
    const char *min = nullptr;
    bool authority = true;
    const char *name = nullptr;
    const char *cert = nullptr, *key = nullptr;
};

int set_options(RUVConn *conn, const wanted &w) {
    const std::string ca = w.authority ? ids().file("ca.pem") : "";
    const std::string cert = w.cert ? ids().file(w.cert) : "";
    const std::string key = w.key ? ids().file(w.key) : "";
    return RUVSetTLSOptions(conn, w.min, ca.c_str(), w.name, cert.c_str(), key.c_str());
}

// Opens with the options against the server; the reason of a failure, or "".
std::string open_result(const tls::server_options &server, const wanted &w, int mode = 1) {
    tls::server_log log;
    collected got;
    fake::receiver r(mode == 2 ? tls::on_request(server, &log, got.script())
                               : tls::over_tls(server, &log, got.script()));
    conn_ptr conn = make_conn(r.port(), mode);
    EXPECT_EQ(set_options(conn.get(), w), 0) << text_of(conn.get(), ruverrno);
    clear_error();
    if (RUVOpen(conn.get()) == 0) {
        EXPECT_NE(conn->ssl_conn, nullptr);
        EXPECT_GT(send_text(conn.get(), "hello"), 0);
        EXPECT_EQ(got.wait(6), "hello|");
        return "";
    }
    EXPECT_EQ(ruverrno, 6);
    EXPECT_EQ(conn->skt, -1);
    const std::string text = text_of(conn.get(), ruverrno);
    EXPECT_EQ(got.bytes, "");
    return text.substr(text.find("): ") + 3);
}

TEST(TlsOptions, AuthenticatedVersionsWork) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const auto server = serving(ids().server, version, version);
        EXPECT_EQ(open_result(server, {"1.2"}), "");
        EXPECT_EQ(open_result(server, {nullptr, true, "localhost"}), "");
        EXPECT_EQ(open_result(server, {nullptr, true, "127.0.0.1"}), "");
        EXPECT_EQ(open_result(server, {"1.2"}, 2), "");
    }
    EXPECT_EQ(open_result(serving(ids().server), {"1.3"}), "");
}

TEST(TlsOptions, APlainHandleBecomesAnEncryptedOne) {
    EXPECT_EQ(open_result(serving(ids().server), {}, 0), "");
}

// Their whole texts stand in tls_reason_test.cpp.
TEST(TlsOptions, EachRefusalNamesItsReason) {
    struct row {
        tls::server_options server;
        wanted options;
        const char *reason;
    };
    tls::server_options asking_12 = serving(ids().server, TLS1_2_VERSION, TLS1_2_VERSION);
    tls::server_options asking_13 = serving(ids().server);
    asking_12.client_authority = asking_13.client_authority = &ids().authority;
    const row rows[] = {
        {serving(ids().expired), {}, "certificate has expired"},
        {serving(ids().wrong_name), {nullptr, true, "localhost"}, "hostname mismatch"},
        {serving(ids().wrong_name), {}, "IP address mismatch"},
        {serving(ids().server), {nullptr, true, "example.org"}, "hostname mismatch"},
        {serving(ids().stranger), {}, "self-signed certificate"},
        {serving(ids().server), {nullptr, false}, "unable to get local issuer certificate"},
        {serving(ids().server, TLS1_VERSION, TLS1_VERSION), {}, "protocol version"},
        {serving(ids().server, TLS1_VERSION, TLS1_1_VERSION), {"1.2"}, "protocol version"},
        {serving(ids().server, TLS1_VERSION, TLS1_2_VERSION), {"1.3"}, "protocol version"},
        {asking_12, {}, "asks for a client certificate and none is set"},
        {asking_13, {}, "asks for a client certificate and none is set"},
    };
    for (const row &r : rows) {
        const std::string reason = open_result(r.server, r.options);
        EXPECT_NE(reason.find(r.reason), std::string::npos) << reason << " is not " << r.reason;
    }
}

TEST(TlsOptions, AClientCertificateIsShown) {
    tls::server_options asking = serving(ids().server);
    asking.client_authority = &ids().authority;
    EXPECT_EQ(open_result(asking, {nullptr, true, nullptr, "client.pem", "client.key"}), "");
    EXPECT_EQ(open_result(asking, {"1.3", true, nullptr, "both.pem"}), "");
}

TEST(TlsOptions, UnusableOnesAreRefusedAndLeaveNoWayIn) {
    struct row {
        const char *min, *ca, *cert, *key;
        int error, argument;
    };
    const std::string ca = ids().file("ca.pem"), cert = ids().file("client.pem"),
                      key = ids().file("client.key"), other = ids().file("server.key");
    const row rows[] = {
        {"1.0", ca.c_str(), nullptr, nullptr, 2, 2},
        {"1.1", ca.c_str(), nullptr, nullptr, 2, 2},
        {"TLS", ca.c_str(), nullptr, nullptr, 2, 2},
        {"1.2", "/nonexistent/ca.pem", nullptr, nullptr, 6, 0},
        {"1.2", ca.c_str(), "/nonexistent/cert.pem", key.c_str(), 6, 0},
        {"1.2", ca.c_str(), cert.c_str(), "/nonexistent/key", 6, 0},
        {"1.2", ca.c_str(), cert.c_str(), other.c_str(), 6, 0},
        {"1.2", ca.c_str(), nullptr, key.c_str(), 2, 5},
    };
    fake::receiver r(fake::serve());
    for (const row &one : rows) {
        conn_ptr conn = make_conn(r.port());
        clear_error();
        EXPECT_EQ(RUVSetTLSOptions(conn.get(), one.min, one.ca, nullptr, one.cert, one.key), -1);
        EXPECT_EQ(ruverrno, one.error);
        EXPECT_EQ(ruverrno2, one.argument);
        EXPECT_EQ(RUVOpen(conn.get()), -1);
        EXPECT_EQ(ruverrno, 5);
    }
    EXPECT_EQ(r.connections(), 0);
}

TEST(TlsOptions, NothingIsEverSentInPlain) {
    // A plain Receiver that would answer everything, and one that stays silent.
    const os_guard guard;
    for (const int mode : {0, 1}) {
        fake::receiver plain(fake::serve());
        conn_ptr conn = make_conn(plain.port(), mode);
        ASSERT_EQ(set_options(conn.get(), {}), 0);
        EXPECT_EQ(RUVOpen(conn.get()), -1);
        EXPECT_EQ(ruverrno, 6);
        ruv::os.own_handshake_ms = 300;
        fake::receiver silent([](fake::peer &p) { p.drain(); });
        conn_ptr other = make_conn(silent.port(), mode);
        ASSERT_EQ(set_options(other.get(), {}), 0);
        EXPECT_EQ(RUVOpen(other.get()), -1);
        EXPECT_EQ(ruverrno, 19);
        EXPECT_EQ(other->skt, -1);
        ruv::os.own_handshake_ms = guard.saved.own_handshake_ms;
        for (const fake::receiver *r : {&plain, &silent}) {
            EXPECT_EQ(r->connections(), 1);
            EXPECT_EQ(r->wait_received(3).substr(0, 3), "\x16\x03\x01");
            EXPECT_EQ(r->received().find(fake::kMagic), std::string::npos);
        }
    }
}

TEST(TlsOptions, ASilentEncryptedReceiverStaysEncrypted) {
    const os_guard guard;
    ruv::os.probe_budget_ms = 100;
    tls::server_log log;
    fake::receiver r(tls::over_tls(serving(ids().server), &log, [](fake::peer &p) { p.drain(); }));
    conn_ptr conn = make_conn(r.port(), 1);
    ASSERT_EQ(set_options(conn.get(), {}), 0);
    ASSERT_EQ(RUVOpen(conn.get()), 0) << text_of(conn.get(), ruverrno);
    EXPECT_EQ(conn->ruv_ver, 1);
    EXPECT_NE(conn->ssl_conn, nullptr);
    EXPECT_EQ(r.connections(), 2);
    for (int i = 0; i < 3000 && log.handshakes < 2; ++i) usleep(10'000);
    EXPECT_EQ(log.handshakes, 2);
}

TEST(TlsOptions, ARefusedUpgradeSendsNothingMore) {
    fake::receiver r(fake::serve());
    conn_ptr conn = make_conn(r.port(), 2);
    ASSERT_EQ(set_options(conn.get(), {}), 0);
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 13);
    EXPECT_EQ(conn->skt, -1);
    EXPECT_EQ(r.wait_received(32), request_bytes(0) + request_bytes(1));
}

TEST(TlsOptions, AFailedUpgradeClosesTheConnection) {
    tls::server_log log;
    fake::receiver r(tls::on_request(serving(ids().expired), &log, fake::serve()));
    conn_ptr conn = open_conn(r.port());
    ASSERT_EQ(set_options(conn.get(), {}), 0);
    clear_error();
    EXPECT_EQ(RUVEnableSSL(conn.get()), -1);
    EXPECT_EQ(ruverrno, 6);
    EXPECT_EQ(conn->skt, -1);
}

TEST(TlsOptions, ClosingAtOnceLosesNothing) {
    // Unread session tickets in the socket would turn the close into a reset.
    tls::server_log log;
    collected got;
    fake::receiver r(tls::over_tls(serving(ids().server, TLS1_3_VERSION), &log, got.script()));
    std::string expected;
    for (int i = 0; i < 20; ++i) {
        conn_ptr conn = make_conn(r.port(), 1);
        ASSERT_EQ(set_options(conn.get(), {"1.3"}), 0);
        ASSERT_EQ(RUVOpen(conn.get()), 0) << text_of(conn.get(), ruverrno);
        const std::string text = "event " + std::to_string(i);
        ASSERT_GT(send_text(conn.get(), text), 0);
        RUVClose(conn.get());
        expected += text + "|";
        ASSERT_EQ(got.wait(expected.size()), expected);
    }
    r.stop();
    EXPECT_EQ(log.clean_closes, 20);
}

// The lengths of the records in which two segments of these lengths arrive.
std::vector<int> records_of(size_t first, size_t second, const wanted &w) {
    tls::server_log log;
    const size_t total = first + second;
    fake::receiver r(tls::over_tls(serving(ids().server), &log, [&](fake::peer &p) {
        const fake::version6 v;
        fake::serve_one(p, v);
        fake::serve_one(p, v);
        const std::string expected = std::string(first, 'a') + std::string(second, 'b');
        p.send(p.read(total) == expected ? fake::kOkay : fake::kNotOkay);
        p.drain();
    }));
    conn_ptr conn = make_conn(r.port(), 1);
    EXPECT_EQ(set_options(conn.get(), w), 0);
    EXPECT_EQ(RUVOpen(conn.get()), 0) << text_of(conn.get(), ruverrno);
    log.take_records();
    std::string a(first, 'a'), b(second, 'b');
    char none;
    iovec iov[3] = {{a.data(), first}, {&none, 0}, {b.data(), second}};
    EXPECT_EQ(libruv_write(conn.get(), 3, iov), static_cast<int>(total));
    EXPECT_EQ(iov[0].iov_len + iov[2].iov_len, 0u) << "the segments are used up";
    EXPECT_EQ(iov[2].iov_base, b.data() + second);
    char answer[8];
    iovec in = {answer, 8};
    EXPECT_EQ(libruv_read(conn.get(), 1, &in), 8);
    EXPECT_EQ(std::string(answer, 8), fake::kOkay);
    return log.take_records();
}

TEST(TlsOptions, AUnitIsOneRecordWhereItFits) {
    for (const char *lowest : {"1.2", "1.3"}) {
        const wanted w = {lowest};
        EXPECT_EQ(records_of(1, 0, w), (std::vector<int>{1}));
        EXPECT_EQ(records_of(8, 19, w), (std::vector<int>{27}));
        EXPECT_EQ(records_of(8, 16'375, w), (std::vector<int>{16'383}));
        EXPECT_EQ(records_of(16'383, 1, w), (std::vector<int>{16'384}));
        EXPECT_EQ(records_of(8, 16'377, w), (std::vector<int>{8, 16'377}));
        EXPECT_EQ(records_of(20'000, 3, w), (std::vector<int>{16'384, 3'616, 3}));
    }
}

// What one handle demands is demanded of its own peer only, before, during and after.
TEST(TlsOptions, EachHandleHasAContextOfItsOwn) {
    tls::server_log logs[3];
    collected got[3];
    fake::receiver old(tls::over_tls(serving(ids().stranger, TLS1_VERSION, TLS1_VERSION), &logs[0],
                                     got[0].script()));
    fake::receiver known(tls::over_tls(serving(ids().server), &logs[1], got[1].script()));
    fake::receiver stranger(tls::over_tls(serving(ids().stranger), &logs[2], got[2].script()));
    const conn_ptr before = open_tls(old.port(), 1);
    const conn_ptr strict = make_conn(known.port(), 1), refused = make_conn(stranger.port(), 1);
    ASSERT_EQ(set_options(strict.get(), {"1.3"}), 0);
    ASSERT_EQ(set_options(refused.get(), {"1.2"}), 0);
    ASSERT_EQ(RUVOpen(strict.get()), 0) << text_of(strict.get(), ruverrno);
    EXPECT_EQ(RUVOpen(refused.get()), -1);
    const conn_ptr after = open_tls(old.port(), 1);
    EXPECT_GT(send_text(before.get(), "a"), 0);
    EXPECT_EQ(got[0].wait(2), "a|");
    EXPECT_GT(send_text(strict.get(), "b"), 0);
    EXPECT_EQ(got[1].wait(2), "b|");
    EXPECT_GT(send_text(after.get(), "c"), 0);
    EXPECT_EQ(got[0].wait(4), "a|c|");
    EXPECT_EQ(got[2].wait(0), "");
}

TEST(TlsOptions, AGroupIsConfirmed) {
    tls::server_log log;
    collected got;
    fake::receiver r(tls::over_tls(serving(ids().server), &log, got.script()));
    conn_ptr conn = make_conn(r.port(), 1);
    ASSERT_EQ(set_options(conn.get(), {}), 0);
    ASSERT_EQ(RUVOpen(conn.get()), 0);
    ASSERT_EQ(RUVGroupBegin(conn.get()), 0);
    EXPECT_GT(send_text(conn.get(), "a"), 0);
    EXPECT_GT(send_text(conn.get(), "b"), 0);
    EXPECT_EQ(RUVGroupCommit(conn.get(), 30), 0) << text_of(conn.get(), ruverrno);
    EXPECT_EQ(got.wait(4), "a|b|");
}

}  // namespace
