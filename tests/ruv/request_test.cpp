#include "ruv/request.h"

#include "ruv/channel.h"
#include "ruv/record.h"
#include "tests/ruv/link_kit.h"

namespace {

// A handle on a socket pair; the test is the Receiver.
struct pair_conn {
    RUVConn conn = {};
    int other = -1;
    pair_conn() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        conn.skt = fds[0];
        other = fds[1];
        conn.ruv_ver = 2;
    }
    ~pair_conn() {
        ::close(conn.skt);
        ::close(other);
    }
    void answer(const std::string &text) {
        ASSERT_EQ(send(other, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    }
    std::string sent() {
        char buffer[4096];
        const ssize_t got = recv(other, buffer, sizeof buffer, MSG_DONTWAIT);
        return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : "";
    }
};

TEST(Request, EveryCodeHasItsGoldenBytes) {
    struct row {
        int code;
        const char *bytes;
    };
    const row rows[] = {
        {0, "\x06\0\0\0\0\0\0\0"},    {1, "\x06\0\x10\0\0\0\0\0"}, {2, "\x06\0\x20\0\0\0\0\0"},
        {3, "\x06\0\x30\0\0\0\0\0"},  {4, "\x06\0\x40\0\0\0\0\0"}, {5, "\x06\0\x50\0\0\0\0\0"},
        {6, "\x06\0\x60\0\0\0\0\0"},  {7, "\x06\0\x70\0\0\0\0\0"}, {8, "\x06\0\x80\0\0\0\0\0"},
        {16, "\x06\0\0\x01\0\0\0\0"},
    };
    for (const row &r : rows) {
        pair_conn p;
        EXPECT_EQ(libruv_send_rqstinfo(&p.conn, r.code, 0, 0), 16);
        EXPECT_EQ(p.sent(), fake::kMagic + std::string(r.bytes, 8)) << r.code;
    }
    pair_conn p;
    EXPECT_EQ(libruv_send_rqstinfo(&p.conn, 4, 0x0102, 0x0304), 16);
    EXPECT_EQ(p.sent(), fake::kMagic + std::string("\x06\0\x40\0\x04\x03\x02\x01", 8));
}

TEST(Request, ResultWordIsComparedWhole) {
    for (size_t i = 0; i < 8; ++i) {
        pair_conn p;
        std::string word = fake::kOkay;
        word[i] = static_cast<char>(word[i] ^ 1);
        p.answer(word);
        clear_error();
        EXPECT_EQ(libruv_rqstinfo_check_result(&p.conn), -1);
        EXPECT_EQ(ruverrno, 13) << i;
    }
    pair_conn p;
    p.answer(fake::kOkay + fake::kNotOkay);
    EXPECT_EQ(libruv_rqstinfo_check_result(&p.conn), 0);
    EXPECT_EQ(libruv_rqstinfo_check_result(&p.conn), -1);
}

TEST(Request, AStreamThatEndsInsideTheResultIsASystemError) {
    pair_conn p;
    p.answer("OKA");
    shutdown(p.other, SHUT_WR);
    clear_error();
    EXPECT_EQ(libruv_rqstinfo_check_result(&p.conn), -1);
    EXPECT_EQ(ruverrno, 3);
}

struct version_answer {
    uint16_t major = 0, minor = 0, dot = 0;
    char patch[3] = {'x', 'x', 'x'};
    uint64_t build = 99;
    int ask(RUVConn *conn) { return RUVGetReceiverVer(conn, &major, &minor, &dot, patch, &build); }
};

TEST(ReceiverVersion, NeedsAnOpenConnection) {
    version_answer v;
    EXPECT_EQ(v.ask(nullptr), -1);
    EXPECT_EQ(ruverrno, 2);
    EXPECT_EQ(ruverrno2, 1);
    RUVConn closed = {};
    closed.skt = -1;
    EXPECT_EQ(v.ask(&closed), -1);
    EXPECT_EQ(ruverrno, 22);
}

TEST(ReceiverVersion, OldAndMuteReceiversHaveFixedAnswers) {
    for (const int generation : {0, 1, 2}) {
        pair_conn p;
        p.conn.ruv_ver = generation;
        version_answer v;
        ASSERT_EQ(v.ask(&p.conn), 0);
        EXPECT_EQ(v.major, 8);
        EXPECT_EQ(v.minor, generation == 2 ? 5 : 4);
        EXPECT_EQ(v.dot, 0);
        EXPECT_EQ(std::string(v.patch, 3), std::string("?\0x", 3));
        EXPECT_EQ(v.build, 0u);
        EXPECT_EQ(p.sent(), "");
    }
}

TEST(ReceiverVersion, IsAskedForAndStored) {
    pair_conn p;
    p.conn.data_versions[0][5] = 1 << 6;
    p.answer(fake::kOkay + std::string("\x0b\0\x02\0\x03\0r4\x08\x07\x06\x05\x04\x03\x02\x01", 16));
    version_answer v;
    ASSERT_EQ(v.ask(&p.conn), 0);
    EXPECT_EQ(p.sent(), request_bytes(6));
    EXPECT_EQ(v.major, 11);
    EXPECT_EQ(v.minor, 2);
    EXPECT_EQ(v.dot, 3);
    EXPECT_EQ(std::string(v.patch, 3), "r4x");
    EXPECT_EQ(v.build, 0x0102030405060708u);
}

TEST(ReceiverVersion, RefusalAndTruncationStoreNothing) {
    for (const std::string &answer : {fake::kNotOkay, fake::kOkay + std::string(15, 1)}) {
        pair_conn p;
        p.conn.data_versions[0][5] = 1 << 6;
        p.answer(answer);
        shutdown(p.other, SHUT_WR);
        version_answer v;
        EXPECT_EQ(v.ask(&p.conn), -1);
        EXPECT_EQ(ruverrno, answer == fake::kNotOkay ? 13 : 3);
        EXPECT_EQ(v.build, 99u);
        EXPECT_EQ(v.patch[0], 'x');
    }
}

TEST(Request, GetChanIDCarriesTheSource) {
    const uint32_t ipv4 = 0x0A010203;
    const uint32_t ipv6[4] = {0x20010DB8, 0, 0, 1};
    struct row {
        int type;
        const void *data;
        std::string body;
    };
    const row rows[] = {
        {1, &ipv4, std::string("\x01\0\x04\0\x03\x02\x01\x0A", 8)},
        {2, ipv6, std::string("\x02\0\x10\0\xB8\x0D\x01\x20\0\0\0\0\0\0\0\0\x01\0\0\0", 20)},
        {3, "host-9", std::string("\x03\0\x06\0host-9", 10)},
        {3, "", std::string("\x03\0\0\0", 4)},
    };
    for (const row &r : rows) {
        pair_conn p;
        p.answer(fake::kOkay + std::string("\x09\0\0\0", 4));
        ds_ptr ds(RUVAllocDSInfo(r.type, r.data));
        EXPECT_EQ(libruv_request_channel_id(&p.conn, ds.get()), 9);
        EXPECT_EQ(p.sent(), request_bytes(3) + r.body);
        EXPECT_EQ(libruv_lookup_channel_id(&p.conn, ds.get()), 9);
        libruv_free_channels(&p.conn);
    }
}

TEST(Request, AmKnownCarriesChannelAndThirdPartyType) {
    RUVData_t record = {};
    record.ctl.type = 4;
    record.ctl.tpt = 43;
    pair_conn first;
    first.answer(fake::kOkay);
    EXPECT_EQ(libruv_am_known(&first.conn, &record, 0x21), 0);
    EXPECT_EQ(first.sent(), request_bytes(4, 0x21, 43));
    libruv_free_channels(&first.conn);

    pair_conn second;
    second.conn.data_versions[0][5] = 1 << 8;
    second.answer(fake::kOkay + fake::kOkay);
    EXPECT_EQ(libruv_am_known(&second.conn, &record, 3), 0);
    EXPECT_EQ(second.sent(), request_bytes(8, 3, 43) + std::string("\x04\0\0\0", 4));
    EXPECT_EQ(libruv_am_known(&second.conn, nullptr, 3), 0);
    EXPECT_EQ(second.sent(), request_bytes(8, 3, 0) + std::string("\0\0\0\0", 4));
    libruv_free_channels(&second.conn);
}

}  // namespace
