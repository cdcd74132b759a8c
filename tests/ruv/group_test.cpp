#include "ruv/group.h"

#include <cerrno>

#include "ruv/ruvlibsetters.h"
#include "tests/ruv/link_kit.h"

namespace {

// A Syslog record of version 6, sub-version 2, without a source, from its documented layout.
std::string syslog_bytes(const std::string &text, uint32_t time) {
    return fake::kMagic + std::string("\x06\x03\x10\0\0\0\0\0", 8) + fake::bytes_of(time) +
           std::string("\0\0", 2) + fake::bytes_of(static_cast<uint16_t>(text.size())) + text;
}

struct sender {
    conn_ptr conn;
    void *record;
    explicit sender(int port) : conn(open_conn(port)), record(RUVAllocData(conn.get(), 3, 0, 0)) {
        EXPECT_NE(record, nullptr);
    }
    ~sender() { RUVFreeData(record); }
    // The text must not outlive the call: a group copies it.
    int send(std::string text) {
        RUVResetData(record);
        RUVSyslogSet_message(record, text.data(), static_cast<int>(text.size()));
        RUVSyslogSet_collect_time(record, 7);
        const int result = RUVSendData(conn.get(), record, nullptr);
        text.assign(text.size(), '#');
        return result;
    }
};

TEST(Group, ArgumentsAndStateAreChecked) {
    clear_error();
    EXPECT_EQ(RUVGroupBegin(nullptr), -1);
    EXPECT_EQ(ruverrno, 2);
    EXPECT_EQ(RUVGroupCommit(nullptr, 1), -1);
    RUVGroupDrop(nullptr);
    EXPECT_EQ(ruverrno, 2);
    conn_ptr conn = make_conn(1);
    EXPECT_EQ(RUVGroupBegin(conn.get()), -1);
    EXPECT_EQ(ruverrno, 22);
    clear_error();
    EXPECT_EQ(RUVGroupCommit(conn.get(), 1), -1);
    EXPECT_EQ(ruverrno, 2);

    fake::receiver r(fake::serve());
    sender s(r.port());
    EXPECT_EQ(RUVGroupCommit(s.conn.get(), 1), -1);
    EXPECT_EQ(ruverrno2, 1);
    ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
    for (const int timeout : {0, -1, 86'401}) {
        EXPECT_EQ(RUVGroupCommit(s.conn.get(), timeout), -1);
        EXPECT_EQ(ruverrno2, 2);
    }
    EXPECT_NE(s.conn->skt, -1);
    s.conn->ruv_ver = 1;
    EXPECT_EQ(RUVGroupBegin(s.conn.get()), -1);
    EXPECT_EQ(ruverrno, 12);
}

TEST(Group, QueuesThenWritesEverythingWithOneNop) {
    fake::receiver r(fake::serve());
    sender s(r.port());
    ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
    EXPECT_EQ(s.send("one"), 27);
    EXPECT_EQ(s.send("second"), 30);
    EXPECT_EQ(s.conn->group.used, 57u);
    EXPECT_EQ(RUVGroupCommit(s.conn.get(), 30), 0) << ruverrno;
    EXPECT_EQ(r.received(), request_bytes(0) + request_bytes(2) + syslog_bytes("one", 7) +
                                syslog_bytes("second", 7) + request_bytes(0));
    EXPECT_FALSE(libruv_group_is_open(s.conn.get()));
    // Records go straight to the Receiver again.
    EXPECT_EQ(s.send("x"), 25);
    EXPECT_EQ(s.conn->group.used, 0u);
}

TEST(Group, AnEmptyGroupWritesNothing) {
    fake::receiver r(fake::serve());
    sender s(r.port());
    ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
    EXPECT_EQ(RUVGroupCommit(s.conn.get(), 1), 0);
    EXPECT_EQ(r.wait_received(32).size(), 32u);
}

TEST(Group, ADroppedGroupIsForgotten) {
    fake::receiver r(fake::serve());
    sender s(r.port());
    ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
    s.send("lost");
    RUVGroupDrop(s.conn.get());
    ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
    s.send("a");
    ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
    s.send("kept");
    EXPECT_EQ(RUVGroupCommit(s.conn.get(), 30), 0);
    EXPECT_EQ(r.received().substr(32), syslog_bytes("kept", 7) + request_bytes(0));
}

TEST(Group, AThousandRecordsArriveInOrder) {
    fake::receiver r(fake::serve());
    sender s(r.port());
    std::string expected;
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
        for (int i = 0; i < 1000; ++i) {
            const std::string text = std::to_string(round * 1000 + i) + std::string(100, '.');
            ASSERT_GT(s.send(text), 0);
            expected += syslog_bytes(text, 7);
        }
        ASSERT_EQ(RUVGroupCommit(s.conn.get(), 60), 0) << ruverrno;
        expected += request_bytes(0);
    }
    EXPECT_TRUE(r.received().substr(32) == expected);
}

// Serves the open, then whatever `rest` does.
fake::receiver::script after_open(std::function<void(fake::peer &)> rest) {
    return [rest = std::move(rest)](fake::peer &p) {
        const fake::version6 v;
        if (fake::serve_one(p, v) && fake::serve_one(p, v)) rest(p);
    };
}

TEST(Group, EveryFailureClosesTheConnection) {
    struct row {
        const char *what;
        std::function<void(fake::peer &)> rest;
        int error;
        int timeout;
    };
    const row rows[] = {
        {"silent", [](fake::peer &p) { p.drain(); }, 4, 1},
        {"refused",
         [](fake::peer &p) {
             p.read(27 + 16);
             p.send(fake::kNotOkay);
             p.drain();
         },
         13, 60},
        {"half an answer",
         [](fake::peer &p) {
             p.read(27 + 16);
             p.send("OKAY");
             p.drain();
         },
         4, 1},
        {"closed after the records", [](fake::peer &p) { p.read(27); }, 3, 60},
        {"reset",
         [](fake::peer &p) {
             p.read(10);
             p.reset();
         },
         3, 60},
    };
    for (const row &r : rows) {
        fake::receiver receiver(after_open(r.rest));
        sender s(receiver.port());
        ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
        ASSERT_EQ(s.send("one"), 27);
        clear_error();
        EXPECT_EQ(RUVGroupCommit(s.conn.get(), r.timeout), -1) << r.what;
        EXPECT_EQ(ruverrno, r.error) << r.what;
        EXPECT_EQ(s.conn->skt, -1) << r.what;
        EXPECT_EQ(s.conn->group.used, 0u);
        EXPECT_FALSE(libruv_group_is_open(s.conn.get()));
    }
}

TEST(Group, AReceiverThatStopsReadingTimesOut) {
    std::atomic<bool> over{false};
    fake::receiver receiver(after_open([&](fake::peer &) {
        while (!over) usleep(10'000);
    }));
    sender s(receiver.port());
    ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
    for (int i = 0; i < 1000; ++i) ASSERT_GT(s.send(std::string(60'000, 'x')), 0);
    clear_error();
    EXPECT_EQ(RUVGroupCommit(s.conn.get(), 1), -1);
    EXPECT_EQ(ruverrno, 4);
    EXPECT_EQ(s.conn->skt, -1);
    over = true;
}

TEST(Group, ClosingDropsIt) {
    fake::receiver r(fake::serve());
    sender s(r.port());
    ASSERT_EQ(RUVGroupBegin(s.conn.get()), 0);
    s.send("lost");
    RUVClose(s.conn.get());
    EXPECT_FALSE(libruv_group_is_open(s.conn.get()));
    ASSERT_EQ(RUVOpen(s.conn.get()), 0);
    EXPECT_EQ(s.send("x"), 25);
}

TEST(Group, AQueueHasAnEnd) {
    conn_ptr conn = make_conn(1);
    std::string big(1 << 20, 'x');
    iovec iov = {big.data(), big.size()};
    for (int i = 0; i < 64; ++i) ASSERT_EQ(libruv_group_queue(conn.get(), 1, &iov), 1 << 20);
    clear_error();
    iov.iov_len = 1;
    EXPECT_EQ(libruv_group_queue(conn.get(), 1, &iov), -1);
    EXPECT_EQ(ruverrno, 1);
    EXPECT_EQ(conn->group.used, size_t{64} << 20);
}

}  // namespace
