#include <cerrno>
#include <cstring>

#include "ruv/channel.h"
#include "ruv/transport_tls.h"
#include "tests/ruv/link_kit.h"

namespace {

using fake::kNotOkay;
using fake::kOkay;

void drain(fake::peer &p) {
    p.drain();
}

// Reads the NOP and answers it with `answer`.
fake::receiver::script answer_nop(const std::string &answer) {
    return [answer](fake::peer &p) {
        fake::read_header(p);
        p.send(answer);
        p.drain();
    };
}

// Answers the NOP, then ReqDataVers with raw bytes.
fake::receiver::script answer_versions(const std::string &list, bool close_after = true) {
    return [=](fake::peer &p) {
        fake::read_header(p);
        p.send(kOkay);
        fake::read_header(p);
        p.send(kOkay + list);
        if (!close_after) p.drain();
    };
}

TEST(AllocConn, ChecksItsArgumentsInOrder) {
    struct row {
        const char *host;
        int port, family, ssl, version, argument;
    };
    const row rows[] = {
        {nullptr, 0, 9, 9, 9, 1},   {"::1", 0, 9, 9, 9, 2},  {"::1", -1, 0, 0, 0, 2},
        {"::1", 65536, 0, 0, 0, 2}, {"::1", 1, -1, 9, 9, 3}, {"::1", 1, 3, 0, 0, 3},
        {"::1", 1, 0, -1, 9, 4},    {"::1", 1, 0, 3, 0, 4},  {"::1", 1, 0, 0, -1, 5},
        {"::1", 1, 0, 0, 3, 5},
    };
    for (const row &r : rows) {
        clear_error();
        EXPECT_EQ(RUVAllocConn(r.host, r.port, r.family, r.ssl, r.version), nullptr);
        EXPECT_EQ(ruverrno, 2);
        EXPECT_EQ(ruverrno2, r.argument);
    }
    for (const int port : {1, 65535})
        EXPECT_NE(conn_ptr(RUVAllocConn("127.0.0.1", port, 1, 0, 0)), nullptr);
}

TEST(AllocConn, StartsUnconnectedAndUndetected) {
    conn_ptr conn(RUVAllocConn("127.0.0.1", 4242, 1, 2, 2));
    ASSERT_NE(conn, nullptr);
    EXPECT_EQ(conn->skt, -1);
    EXPECT_EQ(conn->port, 4242);
    EXPECT_EQ(conn->ipv4_or_v6, 1);
    EXPECT_EQ(conn->force_ssl, 2);
    EXPECT_EQ(conn->ruv_ver_req, 2);
    EXPECT_EQ(conn->ruv_ver, 0);
    EXPECT_EQ(conn->allow_to_auto_learn, 0);
    EXPECT_EQ(conn->data_types, 0);
    EXPECT_STREQ(conn->host, "127.0.0.1");
    ASSERT_NE(conn->cid.known, nullptr);
    EXPECT_EQ(conn->cid.known[0], 0u);
}

TEST(AllocConn, WithoutTheLibrarysContextItFails) {
    ruv::tls_end();
    clear_error();
    EXPECT_EQ(RUVAllocConn(nullptr, 0, 0, 0, 0), nullptr);
    EXPECT_EQ(ruverrno, 5);
    ruv::tls_start();
    EXPECT_NE(conn_ptr(RUVAllocConn("127.0.0.1", 1, 1, 0, 0)), nullptr);
}

TEST(Handle, NullIsAnErrorEverywhere) {
    clear_error();
    const auto is_argument_error = [] {
        const bool is = ruverrno == 2 && ruverrno2 == 1;
        clear_error();
        return is;
    };
    EXPECT_EQ(RUVOpen(nullptr), -1);
    EXPECT_TRUE(is_argument_error());
    EXPECT_EQ(RUVEnableSSL(nullptr), -1);
    EXPECT_TRUE(is_argument_error());
    RUVClose(nullptr);
    EXPECT_TRUE(is_argument_error());
    RUVFreeConn(nullptr);
    EXPECT_TRUE(is_argument_error());
    EXPECT_EQ(RUVSetTLSOptions(nullptr, "1.2", "", "", "", ""), -1);
    EXPECT_TRUE(is_argument_error());
}

TEST(Open, LearnsVersionsOfAVersion6Receiver) {
    fake::version6 v;
    v.versions.push_back({1, 3, 2});  // protocol 1
    v.versions.push_back({5, 4, 0});
    v.versions.push_back({0, 1, 5});  // skipped: no such protocol
    v.versions.push_back({7, 1, 5});
    v.versions.push_back({6, 5, 5});  // skipped: no such type
    v.versions.push_back({6, 1, 15});
    v.versions.push_back({6, 2, 16});  // no bit to set
    v.versions.push_back({6, 2, 65535});
    fake::receiver r(fake::serve(v));
    conn_ptr conn = open_conn(r.port());
    EXPECT_EQ(conn->ruv_ver, 2);
    EXPECT_EQ(conn->data_types, 0x1F);
    const uint16_t expected[5][6] = {{0, 0, 0, 0, 0, 0x7F},
                                     {0, 0, 0, 0, 0, 0x8003},
                                     {0, 0, 0, 0, 0, 3},
                                     {4, 0, 0, 0, 0, 3},
                                     {0, 0, 0, 0, 1, 1}};
    EXPECT_EQ(memcmp(conn->data_versions, expected, sizeof expected), 0);
    EXPECT_EQ(r.wait_received(32), request_bytes(0) + request_bytes(2));
    EXPECT_EQ(r.connections(), 1);
}

TEST(Open, AnOpenHandleStaysAsItIs) {
    fake::receiver r(fake::serve());
    conn_ptr conn = open_conn(r.port());
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 21);
    EXPECT_NE(conn->skt, -1);
    uint16_t major = 0, minor, dot;
    char patch[2];
    uint64_t build;
    EXPECT_EQ(RUVGetReceiverVer(conn.get(), &major, &minor, &dot, patch, &build), 0);
    EXPECT_EQ(major, 11);
}

TEST(Open, ASilentReceiverIsOfTheOlderGeneration) {
    const os_guard guard;
    ruv::os.probe_budget_ms = 50;
    fake::receiver r(drain);
    conn_ptr conn = make_conn(r.port());
    // The second attempt speaks TLS to a peer that does not; its time-out is not an end.
    ASSERT_EQ(RUVOpen(conn.get()), 0) << ruverrno;
    EXPECT_EQ(conn->ruv_ver, 1);
    EXPECT_EQ(conn->data_types, 0x1E);
    EXPECT_EQ(conn->ssl_conn, nullptr);
    for (int type = 0; type < 5; ++type)
        for (int column = 0; column < 6; ++column)
            EXPECT_EQ(conn->data_versions[type][column],
                      type >= 1 && type <= 3 && column <= 4 ? 1 : 0);
    EXPECT_EQ(r.wait_connections(3), 3);
    // The next open does not probe again.
    RUVClose(conn.get());
    ASSERT_EQ(RUVOpen(conn.get()), 0);
    EXPECT_EQ(conn->ruv_ver, 1);
    for (int i = 0; i < 3000 && r.connections() < 4; ++i) usleep(10'000);
    EXPECT_EQ(r.connections(), 4);
}

TEST(Open, ASilentReceiverIsNoVersion6) {
    const os_guard guard;
    ruv::os.probe_budget_ms = 50;
    fake::receiver r(drain);
    conn_ptr conn = make_conn(r.port(), 0, 2);
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 8);
    EXPECT_EQ(conn->skt, -1);
    // What was found is kept, so the next open connects without a look at what was asked for.
    EXPECT_EQ(RUVOpen(conn.get()), 0);
    EXPECT_EQ(conn->ruv_ver, 1);
    EXPECT_EQ(conn->data_types, 0);
    EXPECT_EQ(r.wait_connections(3), 3);
}

TEST(Open, TheOlderGenerationIsConnectedWithTlsOnRequestToo) {
    const os_guard guard;
    ruv::os.probe_budget_ms = 50;
    fake::receiver r(drain);
    conn_ptr conn = make_conn(r.port(), 2);
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 19) << "the handshake of the third connection";
    EXPECT_EQ(conn->ruv_ver, 1);
    EXPECT_EQ(r.wait_connections(3), 3);
}

TEST(Open, AReceiverThatBecameAnOlderOneLosesItsTablesButNotItsChannels) {
    const os_guard guard;
    fake::receiver r({fake::serve(), drain, drain, drain});
    conn_ptr conn = open_conn(r.port());
    const uint32_t address = 0x0A000001;
    ds_ptr ds(RUVAllocDSInfo(1, &address));
    EXPECT_EQ(libruv_request_channel_id(conn.get(), ds.get()), 7);
    RUVClose(conn.get());
    ruv::os.probe_budget_ms = 50;
    ASSERT_EQ(RUVOpen(conn.get()), 0) << ruverrno;
    EXPECT_EQ(conn->ruv_ver, 1);
    EXPECT_EQ(conn->data_types, 0x1E);
    const uint16_t expected[5][6] = {
        {}, {1, 1, 1, 1, 1, 0}, {1, 1, 1, 1, 1, 0}, {1, 1, 1, 1, 1, 0}};
    EXPECT_EQ(memcmp(conn->data_versions, expected, sizeof expected), 0);
    EXPECT_EQ(libruv_lookup_channel_id(conn.get(), ds.get()), 7);
}

TEST(Open, AHalfAnswerDoesNotHoldTheProbe) {
    const os_guard guard;
    ruv::os.probe_budget_ms = 50;
    fake::receiver r(answer_nop("OKA"));
    conn_ptr conn = make_conn(r.port(), 0, 2);
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 8);
}

TEST(Open, AWrongAnswerFlipsTheEncryption) {
    // First connection plain and refused, second one TLS: its hello begins with a TLS record.
    fake::receiver r({answer_nop(kNotOkay), drain, drain});
    conn_ptr conn = make_conn(r.port());
    EXPECT_EQ(RUVOpen(conn.get()), 0) << ruverrno;
    EXPECT_EQ(conn->ruv_ver, 1);
    const std::string got = r.wait_received(19);
    EXPECT_EQ(got.substr(0, 16), request_bytes(0));
    EXPECT_EQ(got.substr(16, 3), "\x16\x03\x01");
}

TEST(Open, TlsRequiredOfAPlainVersion6ReceiverIsAMismatch) {
    // The TLS attempt times out, the plain one is answered.
    fake::receiver r({drain, fake::serve()});
    conn_ptr conn = make_conn(r.port(), 1);
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 7);
    EXPECT_EQ(conn->skt, -1);
}

TEST(Open, APeerThatIsGoneEndsTheOpen) {
    int port = 0;
    {
        fake::receiver gone(drain);
        port = gone.port();
    }
    conn_ptr conn = make_conn(port);
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(conn->ruv_ver, 0);
}

TEST(Open, Version6IsUsedAsVersion5WhenOnlyThatWasAskedFor) {
    fake::receiver r(fake::serve());
    conn_ptr conn = make_conn(r.port(), 0, 1);
    ASSERT_EQ(RUVOpen(conn.get()), 0) << ruverrno;
    EXPECT_EQ(conn->ruv_ver, 1);
    EXPECT_EQ(conn->data_types, 0x1E);
    EXPECT_EQ(conn->data_versions[0][5], 0);
    EXPECT_EQ(r.connections(), 1);

    conn_ptr on_request = make_conn(r.port(), 2, 1);
    clear_error();
    EXPECT_EQ(RUVOpen(on_request.get()), -1);
    EXPECT_EQ(ruverrno, 7);
}

TEST(Open, ARefusedUpgradeEndsIt) {
    fake::receiver r(fake::serve());
    conn_ptr conn = make_conn(r.port(), 2);
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 13);
    EXPECT_EQ(conn->skt, -1);
    EXPECT_EQ(r.wait_received(32), request_bytes(0) + request_bytes(1));
}

TEST(Open, HostileVersionListsAreErrors) {
    struct row {
        std::string list;
        int error;
    };
    const std::string entry = fake::bytes_of(uint16_t{6}) + std::string(30, 0);
    const row rows[] = {
        {fake::bytes_of(int32_t{-1}), 1},
        {fake::bytes_of(INT32_MIN), 1},
        {fake::bytes_of(INT32_MAX), 1},
        {fake::bytes_of(int32_t{65'537}), 1},
        {fake::bytes_of(int32_t{3}) + entry + entry, 3},
        {fake::bytes_of(int32_t{100}) + entry, 3},
        {"\1\0", 3},
    };
    for (const row &r : rows) {
        fake::receiver hostile(answer_versions(r.list));
        conn_ptr conn = make_conn(hostile.port());
        clear_error();
        EXPECT_EQ(RUVOpen(conn.get()), -1);
        EXPECT_EQ(ruverrno, r.error);
        EXPECT_EQ(conn->skt, -1);
        EXPECT_EQ(conn->data_types, 0);
    }
}

TEST(Open, AnEmptyVersionListOffersNothing) {
    fake::receiver r(answer_versions(fake::bytes_of(int32_t{0}), false));
    conn_ptr conn = open_conn(r.port());
    EXPECT_EQ(conn->ruv_ver, 2);
    EXPECT_EQ(conn->data_types, 0);
}

TEST(Open, ATypeCountsEvenWhenItsVersionHasNoBit) {
    fake::version6 v;
    v.versions = {{6, 2, 16}};
    fake::receiver r(fake::serve(v));
    conn_ptr conn = open_conn(r.port());
    EXPECT_EQ(conn->data_types, 1 << 2);
    for (const uint16_t mask : conn->data_versions[2]) EXPECT_EQ(mask, 0);
}

TEST(Open, EmptiesTheChannelCache) {
    fake::receiver r(fake::serve());
    conn_ptr conn = open_conn(r.port());
    const uint32_t address = 0x0A000001;
    ds_ptr ds(RUVAllocDSInfo(1, &address));
    EXPECT_EQ(libruv_request_channel_id(conn.get(), ds.get()), 7);
    conn->cid.known[0] = 0xFFFFFFFF;
    RUVClose(conn.get());
    EXPECT_EQ(libruv_lookup_channel_id(conn.get(), ds.get()), 7);
    ASSERT_EQ(RUVOpen(conn.get()), 0);
    EXPECT_EQ(libruv_lookup_channel_id(conn.get(), ds.get()), -1);
    EXPECT_EQ(ruverrno, 14);
    EXPECT_EQ(conn->cid.known[0], 0u);
}

TEST(Open, LoadsTheCatalogueOfAReceiverThatHasOne) {
    fake::version6 v;
    v.versions.push_back({6, 0, 7});
    v.catalogue = "[f]\nUserField.ID=5\nUserField.Name=a\nUserFieldUse.Name=b\n";
    fake::receiver r(fake::serve(v));
    conn_ptr conn = open_conn(r.port());
    ASSERT_EQ(conn->cfi.custom_fields_cnt, 1);
    EXPECT_STREQ(conn->cfi.name_name[0], "a.b");
    RUVClose(conn.get());
    EXPECT_EQ(conn->cfi.custom_fields_cnt, 1);
    ASSERT_EQ(RUVOpen(conn.get()), 0);
    EXPECT_EQ(conn->cfi.custom_fields_cnt, 1);
}

TEST(Open, AnInterruptEndsTheProbeWithoutAGuess) {
    fake::receiver r(drain);
    conn_ptr conn = make_conn(r.port());
    RUVSetInterrupt(
        conn.get(), [](void *) { return 1; }, nullptr);
    clear_error();
    EXPECT_EQ(RUVOpen(conn.get()), -1);
    EXPECT_EQ(ruverrno, 3);
    EXPECT_EQ(ruverrno2, EINTR);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(conn->ruv_ver, 0);
}

// A public function that another one runs has lines of its own.
TEST(Open, TheLinesOfAFailedOpenNameEveryStep) {
    fake::receiver r(fake::serve());
    conn_ptr conn = make_conn(r.port(), 2);
    ASSERT_EQ(RUVSetLogging(0), 0);
    stderr_of([] { RUVSetLogging(0x01); });
    const std::string text = stderr_of([&] {
        EXPECT_EQ(RUVOpen(conn.get()), -1);
        conn.reset();
    });
    stderr_of([] { RUVSetLogging(0); });
    EXPECT_EQ(text,
              "libruv -- function enter: RUVOpen\n"
              "libruv -- function enter: RUVEnableSSL\n"
              "libruv -- function error exit: RUVEnableSSL [13]\n"
              "libruv -- function enter: RUVClose\n"
              "libruv -- function exit: RUVClose\n"
              "libruv -- function error exit: RUVOpen [13]\n"
              "libruv -- function enter: RUVFreeConn\n"
              "libruv -- function enter: RUVClose\n"
              "libruv -- function exit: RUVClose\n"
              "libruv -- function exit: RUVFreeConn\n");
}

TEST(Close, KeepsWhatWasLearned) {
    fake::receiver r(fake::serve());
    conn_ptr conn = open_conn(r.port());
    RUVClose(conn.get());
    EXPECT_EQ(conn->skt, -1);
    EXPECT_EQ(conn->ruv_ver, 2);
    EXPECT_EQ(conn->data_types, 0x1F);
    RUVClose(conn.get());
    clear_error();
    EXPECT_EQ(RUVEnableSSL(conn.get()), -1);
    EXPECT_EQ(ruverrno, 22);
    // Nothing says good-bye.
    EXPECT_EQ(r.wait_received(32), request_bytes(0) + request_bytes(2));
}

TEST(EnableSSL, NeedsVersion6) {
    const os_guard guard;
    ruv::os.probe_budget_ms = 0;
    fake::receiver r(drain);
    conn_ptr conn = make_conn(r.port());
    ASSERT_EQ(RUVOpen(conn.get()), 0);
    clear_error();
    EXPECT_EQ(RUVEnableSSL(conn.get()), -1);
    EXPECT_EQ(ruverrno, 8);
}

}  // namespace
