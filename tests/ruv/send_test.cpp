// RUVSendData: checks, channels, retries and groups, against a scripted Receiver.
#include "ruv/send.h"

#include <gtest/gtest.h>

#include <vector>

#include "ruv/wait.h"
#include "tests/ruv/record_kit.h"
#include "tests/support/fake_receiver.h"

namespace {

std::vector<int> pauses;  // what the library slept, in milliseconds

// Pauses take no time but are noted.
struct Send : testing::Test {
    Send() {
        pauses.clear();
        ruv::os.sleep_ms = [](int milliseconds) { pauses.push_back(milliseconds); };
    }
    ~Send() override { ruv::os = real; }
    const ruv::os_calls real = ruv::os;
};

struct free_conn {
    void operator()(RUVConn *conn) const { RUVFreeConn(conn); }
};
using conn_ptr = std::unique_ptr<RUVConn, free_conn>;

conn_ptr connect_to(const fake::receiver &receiver, int generation = 0) {
    conn_ptr conn(RUVAllocConn("127.0.0.1", receiver.port(), 1, 0, generation));
    EXPECT_NE(nullptr, conn);
    EXPECT_EQ(0, RUVOpen(conn.get()));
    return conn;
}

kit::record_ptr syslog(RUVConn *conn, const char *text) {
    kit::record_ptr record(static_cast<RUVData_t *>(RUVAllocData(conn, 3, 0, 0)));
    EXPECT_NE(nullptr, record);
    RUVSyslogSet_message(record.get(), text, 0);
    return record;
}

// What arrived after the opening handshake, which ends with the ReqDataVers request.
std::string after_opening(const std::string &received) {
    return received.size() < 32 ? std::string() : received.substr(32);
}

std::string request(int code, int channel = 0) {
    return kit::start6(0, static_cast<unsigned>(code), 0, static_cast<unsigned>(channel));
}

std::string syslog_unit(const std::string &text, unsigned channel, unsigned sver = 1) {
    return kit::start6(3, sver, 0, channel) +
           kit::image(8).at<uint16_t>(6, static_cast<uint16_t>(text.size())).bytes() + text;
}

// The body of a GetChanID request for 10.1.2.3.
const std::string kAskIPv4 = request(3) + kit::raw({1, 0, 4, 0, 3, 2, 1, 10});

TEST_F(Send, ArgumentsAreCheckedInOrder) {
    kit::connection closed;
    const auto record = kit::make(3, 6);
    EXPECT_EQ(-1, RUVSendData(nullptr, nullptr, nullptr));
    EXPECT_EQ(2, ruverrno);
    EXPECT_EQ(1, ruverrno2);
    EXPECT_EQ(-1, RUVSendData(&closed.conn, nullptr, nullptr));
    EXPECT_EQ(2, ruverrno);
    EXPECT_EQ(2, ruverrno2);
    EXPECT_EQ(-1, RUVSendData(&closed.conn, record.get(), nullptr));
    EXPECT_EQ(22, ruverrno);
    closed.conn.skt = 1000000;
    for (const uint32_t type : {0u, 5u, 1000u}) {
        record->ctl.type = type;
        EXPECT_EQ(-1, RUVSendData(&closed.conn, record.get(), nullptr));
        EXPECT_EQ(15, ruverrno);
        EXPECT_EQ(static_cast<int>(type), ruverrno2);
    }
}

TEST_F(Send, SourcesThatOldVersionsCannotCarry) {
    kit::connection closed;
    closed.conn.skt = 1000000;  // never written to: every call below ends before
    char name[] = "host";
    RUVDSInfo host = kit::host_source(name);
    RUVDSInfo v6 = kit::ipv6_source();
    for (int type = 1; type <= 4; ++type)
        for (int version = 1; version <= 5; ++version) {
            const auto record = kit::make(type, version);
            EXPECT_EQ(-1, RUVSendData(&closed.conn, record.get(), &host));
            EXPECT_EQ(12, ruverrno);
            EXPECT_EQ(-1, RUVSendData(&closed.conn, record.get(), &v6));
            EXPECT_EQ(type == 3 ? 12 : 18, ruverrno) << "the record is empty";
        }
}

TEST_F(Send, RecordWithoutSourceGoesToChannel0) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    EXPECT_EQ(27, RUVSendData(conn.get(), record.get(), nullptr));
    EXPECT_EQ(syslog_unit("abc", 0), after_opening(receiver.wait_received(32 + 27)));
}

TEST_F(Send, ChannelIsAskedForOnce) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    RUVDSInfo source = kit::ipv4_source();
    EXPECT_EQ(27, RUVSendData(conn.get(), record.get(), &source));
    EXPECT_EQ(27, RUVSendData(conn.get(), record.get(), &source));
    EXPECT_EQ(kAskIPv4 + syslog_unit("abc", 7) + syslog_unit("abc", 7),
              after_opening(receiver.wait_received(32 + 24 + 54)));
}

// Whether auto-learning is on or off, the Receiver is never asked whether it knows the source.
TEST_F(Send, SourceIsNeverAnnounced) {
    fake::receiver receiver(fake::serve());
    const std::string once = request(0) + request(2) + kAskIPv4 + syslog_unit("abc", 7);
    std::string expected;
    for (const bool learning : {false, true}) {
        const auto conn = connect_to(receiver);
        EXPECT_EQ(0, learning ? RUVEnableAutoLearn(conn.get()) : 0);
        const auto record = syslog(conn.get(), "abc");
        RUVDSInfo source = kit::ipv4_source();
        EXPECT_EQ(27, RUVSendData(conn.get(), record.get(), &source));
        expected += once;
        EXPECT_EQ(expected, receiver.wait_received(expected.size()));
    }
}

TEST_F(Send, ChannelIdsOutside16Bits) {
    for (const int32_t channel : {-1, -2, 65536, INT32_MAX, INT32_MIN}) {
        fake::version6 odd;
        odd.channel = channel;
        fake::receiver receiver(fake::serve(odd));
        const auto conn = connect_to(receiver);
        const auto record = syslog(conn.get(), "abc");
        RUVDSInfo source = kit::ipv4_source();
        EXPECT_EQ(-1, RUVSendData(conn.get(), record.get(), &source)) << channel;
        EXPECT_EQ(14, ruverrno) << channel;
        EXPECT_EQ(1, receiver.connections());
    }
}

TEST_F(Send, LargestChannelId) {
    fake::version6 last;
    last.channel = 65535;
    fake::receiver receiver(fake::serve(last));
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    RUVDSInfo source = kit::ipv4_source();
    EXPECT_EQ(27, RUVSendData(conn.get(), record.get(), &source));
    EXPECT_EQ(kAskIPv4 + syslog_unit("abc", 65535),
              after_opening(receiver.wait_received(32 + 24 + 27)));
}

TEST_F(Send, RefusedChannelEndsTheCall) {
    fake::receiver receiver([](fake::peer &p) {
        const fake::version6 v;
        while (true) {
            const fake::header h = fake::read_header(p);
            if (!h.valid) return;
            if (h.version == 0) p.send(fake::kOkay);
            if (h.version == 2) p.send(fake::kOkay + fake::version_list(v.versions));
            if (h.version == 3) p.read(8), p.send(fake::kNotOkay);
        }
    });
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    RUVDSInfo source = kit::ipv4_source();
    EXPECT_EQ(-1, RUVSendData(conn.get(), record.get(), &source));
    EXPECT_EQ(13, ruverrno);
    EXPECT_EQ(1, receiver.connections());
    EXPECT_TRUE(pauses.empty());
}

// A record that cannot be encoded would fail on any connection.
TEST_F(Send, RecordsThatCannotBeEncodedReturnAtOnce) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto empty = kit::make(3, 6);
    EXPECT_EQ(-1, RUVSendData(conn.get(), empty.get(), nullptr));
    EXPECT_EQ(18, ruverrno);
    const auto old = kit::make(2, 2);
    old->data.ok_to_send = 0x20;
    EXPECT_EQ(-1, RUVSendData(conn.get(), old.get(), nullptr));
    EXPECT_EQ(2, ruverrno);
    EXPECT_EQ(1, receiver.connections());
    EXPECT_TRUE(pauses.empty());
    const auto record = syslog(conn.get(), "abc");
    EXPECT_EQ(27, RUVSendData(conn.get(), record.get(), nullptr));
    EXPECT_EQ(syslog_unit("abc", 0), after_opening(receiver.wait_received(32 + 27)));
}

TEST_F(Send, LegacyRecordsHaveNoHeaderAndNoChannel) {
    fake::receiver receiver([](fake::peer &p) { p.drain(); });
    const conn_ptr conn(RUVAllocConn("127.0.0.1", receiver.port(), 1, 0, 1));
    ASSERT_NE(nullptr, conn);
    conn->ruv_ver = kUpTo5;  // as if an earlier open had found it out
    conn->data_types = 0x1E;
    conn->data_versions[3][4] = 1;
    ASSERT_EQ(0, RUVOpen(conn.get()));
    const auto record = syslog(conn.get(), "hi");
    ASSERT_EQ(5, record->ctl.ver);
    RUVDSInfo source = kit::ipv4_source();
    EXPECT_EQ(22, RUVSendData(conn.get(), record.get(), &source));
    EXPECT_EQ(kit::kMagicBytes + kit::raw({5, 5, 0, 0, 3, 2, 1, 10, 2, 0, 0, 0, 'h', 'i'}),
              receiver.wait_received(22));
}

// Makes the next write fail: the socket's writing side is shut.
void break_writing(RUVConn *conn) {
    ASSERT_EQ(0, shutdown(conn->skt, SHUT_WR));
}

TEST_F(Send, LostConnectionIsOpenedAnewAndTheRecordSentAgain) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    RUVDSInfo source = kit::ipv4_source();
    const std::string once = request(0) + request(2) + kAskIPv4 + syslog_unit("abc", 7);
    ASSERT_EQ(27, RUVSendData(conn.get(), record.get(), &source));
    ASSERT_EQ(once, receiver.wait_received(once.size()));
    break_writing(conn.get());
    EXPECT_EQ(27, RUVSendData(conn.get(), record.get(), &source));
    EXPECT_EQ(2, receiver.connections());
    EXPECT_EQ(std::vector<int>{5000}, pauses);
    // The channel belongs to the connection: it is asked for again.
    EXPECT_EQ(once + once, receiver.wait_received(2 * once.size()));
}

// Every connection is broken behind the library's back right after it was opened.
TEST_F(Send, GivesUpAfterSevenWrites) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    static RUVConn *broken;
    broken = conn.get();
    ruv::os.sleep_ms = [](int milliseconds) {
        pauses.push_back(milliseconds);
        break_writing(broken);
    };
    break_writing(conn.get());
    EXPECT_EQ(-1, RUVSendData(conn.get(), record.get(), nullptr));
    EXPECT_EQ(3, ruverrno);
    EXPECT_EQ(EPIPE, ruverrno2);
    EXPECT_EQ(std::vector<int>(6, 5000), pauses) << "30 seconds in all";
    EXPECT_EQ(1 + 7, receiver.connections());
    EXPECT_EQ(27, RUVSendData(conn.get(), record.get(), nullptr)) << "the record is as it was";
}

TEST_F(Send, FailedReopenEndsTheCall) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    break_writing(conn.get());
    ruv::os.connect = [](int, const sockaddr *, socklen_t) {
        errno = ECONNREFUSED;
        return -1;
    };
    EXPECT_EQ(-1, RUVSendData(conn.get(), record.get(), nullptr));
    EXPECT_EQ(3, ruverrno);
    EXPECT_EQ(ECONNREFUSED, ruverrno2);
    EXPECT_EQ(-1, conn->skt);
    EXPECT_TRUE(pauses.empty());
}

// A Receiver that does not answer the probe of a reopen counts as generation 5. A version-6 unit
// would be garbage to it.
TEST_F(Send, ReceiverThatFallsSilentKeepsTheEventWithTheCaller) {
    const auto refuse_probe = [](fake::peer &p) { p.read(16); };
    const auto silent = [](fake::peer &p) { p.drain(); };
    fake::receiver receiver({fake::serve(), refuse_probe, silent, silent});
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    break_writing(conn.get());
    EXPECT_EQ(-1, RUVSendData(conn.get(), record.get(), nullptr));
    EXPECT_EQ(12, ruverrno);
    EXPECT_EQ(kUpTo5, conn->ruv_ver);
    EXPECT_EQ(10'000, real.probe_budget_ms) << "of the two probes that may go unanswered";
    EXPECT_EQ(-1, RUVSendData(conn.get(), record.get(), nullptr)) << "and so it stays";
    EXPECT_EQ(12, ruverrno);
}

TEST_F(Send, InterruptedPauseEndsTheCall) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    static bool stopping;
    stopping = false;
    RUVSetInterrupt(
        conn.get(), [](void *) { return stopping ? 1 : 0; }, nullptr);
    ruv::os.sleep_ms = [](int milliseconds) {
        pauses.push_back(milliseconds);
        stopping = true;
    };
    break_writing(conn.get());
    EXPECT_EQ(-1, RUVSendData(conn.get(), record.get(), nullptr));
    EXPECT_EQ(3, ruverrno);
    EXPECT_EQ(EINTR, ruverrno2);
    EXPECT_EQ(1u, pauses.size());
    EXPECT_LE(pauses.at(0), 250);
}

// A Receiver that does not read, until the kernel takes no more: the stop ends the write itself.
TEST_F(Send, InterruptedWriteEndsTheCallAtOnce) {
    std::atomic<bool> done{false};
    fake::receiver receiver([&done](fake::peer &p) {
        fake::serve_one(p, {});
        fake::serve_one(p, {});
        while (!done) usleep(1000);
    });
    const auto conn = connect_to(receiver);
    const std::string text(65000, 'x');
    const auto record = syslog(conn.get(), text.c_str());
    RUVSetInterrupt(
        conn.get(), [](void *) { return 1; }, nullptr);
    int sent = 0;
    while (sent < 100'000 && RUVSendData(conn.get(), record.get(), nullptr) > 0) ++sent;
    done = true;
    EXPECT_LT(sent, 100'000);
    EXPECT_EQ(3, ruverrno);
    EXPECT_EQ(EINTR, ruverrno2);
    EXPECT_TRUE(pauses.empty());
    EXPECT_EQ(1, receiver.connections());
}

TEST_F(Send, OpenGroupQueuesVersion6Records) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto first = syslog(conn.get(), "abc");
    RUVDSInfo source = kit::ipv4_source();
    ASSERT_EQ(0, RUVGroupBegin(conn.get()));
    EXPECT_EQ(27, RUVSendData(conn.get(), first.get(), &source));
    RUVResetData(first.get());
    RUVSyslogSet_message(first.get(), "de", 0);
    EXPECT_EQ(26, RUVSendData(conn.get(), first.get(), &source));
    // The channel was asked for before queueing; the records wait.
    EXPECT_EQ(kAskIPv4, after_opening(receiver.wait_received(32 + 24)));
    ASSERT_EQ(0, RUVGroupCommit(conn.get(), 30));
    EXPECT_EQ(kAskIPv4 + syslog_unit("abc", 7) + syslog_unit("de", 7) + request(0),
              after_opening(receiver.received()));
    EXPECT_EQ(27, RUVSendData(conn.get(), syslog(conn.get(), "xyz").get(), nullptr));
}

TEST_F(Send, GroupKeepsItsRecordsWhenOneCannotBeEncoded) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto good = syslog(conn.get(), "abc");
    const auto empty = kit::make(3, 6);
    ASSERT_EQ(0, RUVGroupBegin(conn.get()));
    EXPECT_EQ(27, RUVSendData(conn.get(), good.get(), nullptr));
    EXPECT_EQ(-1, RUVSendData(conn.get(), empty.get(), nullptr));
    EXPECT_EQ(18, ruverrno);
    ASSERT_EQ(0, RUVGroupCommit(conn.get(), 30));
    EXPECT_EQ(syslog_unit("abc", 0) + request(0), after_opening(receiver.received()));
}

// The dump comes behind the check of what is required; the header was built before.
TEST_F(Send, IncompleteRecordIsNeverPrinted) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    for (int type = 1; type <= 4; ++type) {
        const auto record = kit::make(type, 6, type < 3 ? 3 : 1);
        ASSERT_EQ(0, RUVSetLogging(0x10));
        testing::internal::CaptureStderr();
        EXPECT_EQ(-1, RUVSendData(conn.get(), record.get(), nullptr));
        const std::string dump = testing::internal::GetCapturedStderr();
        RUVSetLogging(0);
        EXPECT_EQ(18, ruverrno);
        EXPECT_EQ(0u, dump.find("RUV v6 Header:\n"));
        EXPECT_EQ(std::string::npos, dump.find(" Data - Ctl:")) << dump;
    }
}

TEST_F(Send, BytesAreTheSameWithAndWithoutDumps) {
    fake::receiver receiver(fake::serve());
    const auto conn = connect_to(receiver);
    const auto record = syslog(conn.get(), "abc");
    testing::internal::CaptureStderr();
    EXPECT_EQ(27, libruv_send_data(conn.get(), record.get(), nullptr, 9));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    ASSERT_EQ(0, RUVSetLogging(0x10));
    testing::internal::CaptureStderr();
    EXPECT_EQ(27, libruv_send_data(conn.get(), record.get(), nullptr, 9));
    const std::string dump = testing::internal::GetCapturedStderr();
    RUVSetLogging(0);
    EXPECT_NE(std::string::npos, dump.find("RUV v6 Header:\n"));
    EXPECT_NE(std::string::npos, dump.find("\tMsg (3): abc\n"));
    EXPECT_LT(dump.find("RUV v6 Header:\n"), dump.find("Syslog Data - Ctl:\n"));
    EXPECT_EQ(syslog_unit("abc", 9) + syslog_unit("abc", 9),
              after_opening(receiver.wait_received(32 + 54)));
}

}  // namespace
