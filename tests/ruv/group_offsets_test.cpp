// A connection that ends, cleanly or with a reset, at every single byte of a group's stream and of
// its answer. The sender is a model of the collector: its position moves only when a group was
// confirmed, and after a failure it sends from the position again.
#include "ruv/ruvlibsetters.h"
#include "tests/ruv/tls_kit.h"

namespace {

constexpr int kGroup = 4;     // events in a group
constexpr int kEvents = 12;   // three groups; the second one meets the fault
constexpr int kAnswer = 8;    // bytes of "OKAY" and its zeros
constexpr int kFraming = 24;  // magic, header and block of a Syslog record
constexpr int kNop = 16;

// Events of different lengths, so that the offsets meet every part of a record.
std::string event_text(int number) {
    return std::to_string(number) + std::string(static_cast<size_t>(number * 7 % 16), '.');
}

std::string event_bytes(int number) {
    const std::string text = event_text(number);
    return fake::kMagic + std::string("\x06\x03\x10\0\0\0\0\0", 8) + fake::bytes_of(uint32_t{7}) +
           std::string("\0\0", 2) + fake::bytes_of(static_cast<uint16_t>(text.size())) + text;
}

// The bytes of a group, its NOP included.
std::string group_bytes(int first) {
    std::string bytes;
    for (int i = 0; i < kGroup; ++i) bytes += event_bytes(first + i);
    return bytes + request_bytes(0);
}

// Where a connection ends.
struct fault {
    size_t offset;  // bytes of the second group that are read
    size_t answer;  // bytes of its answer that are sent
    bool reset;
};

// The fault's connection, and everything after it served well. Each connection's bytes after the
// open are kept apart.
class faulty_receiver {
  public:
    fake::receiver::script script() {
        return [this](fake::peer &p) { run(p); };
    }
    void plan(const fault &next) {
        const std::lock_guard<std::mutex> guard(lock_);
        plan_ = next;
        streams_.clear();
    }
    // What each connection since the plan brought, asked once the sender is done: every confirmed
    // group is then complete, and the connection that was ended is waited for.
    std::vector<std::string> streams() {
        for (int i = 0; i < 3000 && ended_ == 0; ++i) usleep(10'000);
        const std::lock_guard<std::mutex> guard(lock_);
        ended_ = 0;
        return streams_;
    }

  private:
    void run(fake::peer &p) {
        const fake::version6 v;
        size_t index;
        fault now;
        {
            const std::lock_guard<std::mutex> guard(lock_);
            now = plan_;
            index = streams_.size();
            streams_.emplace_back();
        }
        if (!fake::serve_one(p, v) || !fake::serve_one(p, v)) return;
        if (index > 0) {
            while (take_group(p, index)) p.send(fake::kOkay);
            return;
        }
        if (take_group(p, index)) p.send(fake::kOkay);
        const std::string part = p.read(now.offset);
        add(index, part);
        if (now.answer > 0) p.send(fake::kOkay.substr(0, now.answer));
        if (now.reset) p.reset();
        ++ended_;
    }
    // Records up to a NOP; false at the end of the stream.
    bool take_group(fake::peer &p, size_t index) {
        for (;;) {
            std::string bytes = p.read(kNop);
            if (bytes.size() < kNop) return false;
            if (bytes != request_bytes(0)) {
                bytes += p.read(kFraming - kNop);
                bytes += p.read(static_cast<uint8_t>(bytes[kFraming - 2]));
            }
            add(index, bytes);
            if (bytes == request_bytes(0)) return true;
        }
    }
    void add(size_t index, const std::string &bytes) {
        const std::lock_guard<std::mutex> guard(lock_);
        // A late connection of the offset before has nothing to say here.
        if (index < streams_.size()) streams_[index] += bytes;
    }

    std::mutex lock_;
    fault plan_ = {};
    std::vector<std::string> streams_;
    std::atomic<int> ended_{0};
};

// One confirmed group from `position` on. @return RUVGroupCommit's result.
int send_group(RUVConn *conn, void *record, int position) {
    if (RUVGroupBegin(conn) != 0) return -1;
    for (int i = 0; i < kGroup; ++i) {
        const std::string text = event_text(position + i);
        RUVResetData(record);
        RUVSyslogSet_message(record, text.data(), static_cast<int>(text.size()));
        RUVSyslogSet_collect_time(record, 7);
        EXPECT_GT(RUVSendData(conn, record, nullptr), 0);
    }
    return RUVGroupCommit(conn, 60);
}

// The collector's loop. @return how many commits failed.
int send_everything(RUVConn *conn) {
    void *record = RUVAllocData(conn, 3, 6, 2);
    int failures = 0;
    for (int position = 0; position < kEvents && failures < 5;) {
        if (conn->skt == -1) EXPECT_EQ(RUVOpen(conn), 0) << text_of(conn, ruverrno);
        if (send_group(conn, record, position) == 0) {
            position += kGroup;
            continue;
        }
        EXPECT_EQ(conn->skt, -1) << "a connection that failed must not be used again";
        EXPECT_FALSE(conn->group.open);
        ++failures;
    }
    RUVFreeData(record);
    return failures;
}

// How often each event stands whole in the streams.
std::array<int, kEvents> count_events(const std::vector<std::string> &streams) {
    std::array<int, kEvents> counts = {};
    for (const std::string &stream : streams) {
        size_t at = 0;
        while (stream.size() - at >= kNop) {
            if (stream.compare(at, kNop, request_bytes(0)) == 0) {
                at += kNop;
                continue;
            }
            int number = 0;
            while (number < kEvents &&
                   stream.compare(at, event_bytes(number).size(), event_bytes(number)) != 0)
                ++number;
            if (number == kEvents) break;  // the cut one
            ++counts[static_cast<size_t>(number)];
            at += event_bytes(number).size();
        }
    }
    return counts;
}

// What must hold after a fault in the second group, its answer having been cut.
void check_account(const std::vector<std::string> &streams, const fault &f) {
    ASSERT_EQ(streams.size(), 2u);
    const std::string first = group_bytes(0), again = group_bytes(kGroup);
    EXPECT_EQ(streams[0], first + again.substr(0, f.offset));
    EXPECT_EQ(streams[1], again + group_bytes(2 * kGroup)) << "the group is sent again";
    int lost = 0, repeated = 0, expected = 0;
    for (const int count : count_events(streams)) {
        lost += count == 0;
        repeated += count > 1 ? count - 1 : 0;
    }
    size_t whole = 0;
    for (int i = 0; i < kGroup; ++i) {
        whole += event_bytes(kGroup + i).size();
        expected += whole <= f.offset;
    }
    EXPECT_EQ(lost, 0);
    EXPECT_LE(repeated, kGroup);
    EXPECT_EQ(repeated, expected);
}

// Opens, sends everything through the fault and checks the account.
void run_through(faulty_receiver *faulty, conn_ptr conn, const fault &f) {
    SCOPED_TRACE("stream " + std::to_string(f.offset) + ", answer " + std::to_string(f.answer));
    EXPECT_EQ(send_everything(conn.get()), 1);
    conn.reset();
    check_account(faulty->streams(), f);
}

class GroupOffsets : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(Ends, GroupOffsets, testing::Bool(),
                         [](const auto &how) { return how.param ? "Reset" : "Close"; });

TEST_P(GroupOffsets, OfTheRecordsAndTheirNop) {
    faulty_receiver faulty;
    fake::receiver r(faulty.script());
    const size_t length = group_bytes(kGroup).size();
    for (size_t offset = 0; offset <= length && !HasFailure(); ++offset) {
        const fault f = {offset, 0, GetParam()};
        faulty.plan(f);
        run_through(&faulty, open_conn(r.port()), f);
    }
}

TEST_P(GroupOffsets, OfTheAnswer) {
    faulty_receiver faulty;
    fake::receiver r(faulty.script());
    for (size_t answer = 0; answer < kAnswer && !HasFailure(); ++answer) {
        const fault f = {group_bytes(kGroup).size(), answer, GetParam()};
        faulty.plan(f);
        run_through(&faulty, open_conn(r.port()), f);
    }
}

// The answer that arrived whole counts, though nothing follows it.
TEST(GroupOffset, AWholeAnswerAheadOfTheEndIsEnough) {
    faulty_receiver faulty;
    fake::receiver r(faulty.script());
    const fault f = {group_bytes(kGroup).size(), kAnswer, false};
    faulty.plan(f);
    conn_ptr conn = open_conn(r.port());
    // The third group is the one that finds the connection closed.
    EXPECT_EQ(send_everything(conn.get()), 1);
    const std::vector<std::string> streams = faulty.streams();
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0], group_bytes(0) + group_bytes(kGroup));
    EXPECT_EQ(streams[1], group_bytes(2 * kGroup));
}

// Under TLS a record's end is not a TLS record's, so both kinds of border are met.
TEST(GroupOffset, UnderTls) {
    const tls::identities ids;
    tls::server_log log;
    faulty_receiver faulty;
    fake::receiver r(tls::over_tls({&ids.server}, &log, faulty.script()));
    const size_t length = group_bytes(kGroup).size();
    for (size_t step = 0; step <= length + kAnswer - 1 && !HasFailure(); step += 3) {
        const fault f = {std::min(step, length), step > length ? step - length : 0, false};
        faulty.plan(f);
        conn_ptr conn = make_conn(r.port(), 1);
        ASSERT_EQ(RUVSetTLSOptions(conn.get(), "1.2", ids.file("ca.pem").c_str(), nullptr, nullptr,
                                   nullptr),
                  0);
        ASSERT_EQ(RUVOpen(conn.get()), 0) << text_of(conn.get(), ruverrno);
        run_through(&faulty, std::move(conn), f);
    }
}

}  // namespace
