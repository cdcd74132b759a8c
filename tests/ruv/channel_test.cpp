#include "ruv/channel.h"

#include <cstring>

#include "ruv/record.h"
#include "tests/ruv/link_kit.h"

namespace {

// A cache without a connection.
struct cache_conn {
    RUVConn conn = {};
    cache_conn() { conn.skt = -1; }
    ~cache_conn() { libruv_free_channels(&conn); }
    int save(const RUVDSInfo *ds, int cid) { return libruv_save_channel_id(&conn, ds, cid); }
    int find(const RUVDSInfo *ds) { return libruv_lookup_channel_id(&conn, ds); }
};

ds_ptr ipv4(uint32_t address) {
    return ds_ptr(RUVAllocDSInfo(1, &address));
}
ds_ptr ipv6(uint32_t first, uint32_t last) {
    const uint32_t address[4] = {first, 0, 0, last};
    return ds_ptr(RUVAllocDSInfo(2, address));
}
ds_ptr hostid(const char *name) {
    return ds_ptr(RUVAllocDSInfo(3, name));
}

TEST(DataSource, ArgumentsAreChecked) {
    for (const int type : {0, 4, -1}) {
        clear_error();
        EXPECT_EQ(RUVAllocDSInfo(type, nullptr), nullptr);
        EXPECT_EQ(ruverrno, 2);
        EXPECT_EQ(ruverrno2, 1);
    }
    for (const int type : {1, 2, 3}) {
        clear_error();
        EXPECT_EQ(RUVAllocDSInfo(type, nullptr), nullptr);
        EXPECT_EQ(ruverrno, 2);
        EXPECT_EQ(ruverrno2, 2);
    }
}

TEST(DataSource, CopiesWhatItIsGiven) {
    char name[] = "host";
    ds_ptr ds(RUVAllocDSInfo(3, name));
    name[0] = 'X';
    EXPECT_STREQ(ds->hostid, "host");
    EXPECT_EQ(ds->type, 3);
    EXPECT_EQ(ipv4(0x0A010203)->ipv4, 0x0A010203u);
    EXPECT_EQ(ipv6(1, 2)->ipv6[3], 2u);
}

TEST(AutoLearn, IsOffUntilEnabled) {
    RUVConn conn = {};
    EXPECT_EQ(RUVEnableAutoLearn(&conn), 0);
    EXPECT_EQ(conn.allow_to_auto_learn, 1);
    EXPECT_EQ(RUVDisableAutoLearn(&conn), 0);
    EXPECT_EQ(conn.allow_to_auto_learn, 0);
    for (auto *call : {RUVEnableAutoLearn, RUVDisableAutoLearn}) {
        clear_error();
        EXPECT_EQ(call(nullptr), -1);
        EXPECT_EQ(ruverrno, 2);
        EXPECT_EQ(ruverrno2, 1);
    }
}

TEST(Channel, AnEmptyCacheKnowsNothing) {
    cache_conn c;
    for (const ds_ptr &ds : {ipv4(1), ipv6(1, 1), hostid("a")}) {
        clear_error();
        EXPECT_EQ(c.find(ds.get()), -1);
        EXPECT_EQ(ruverrno, 14);
    }
    RUVDSInfo bad = {};
    bad.type = 4;
    EXPECT_EQ(c.find(&bad), -1);
    EXPECT_EQ(ruverrno, 2);
    clear_error();
    EXPECT_EQ(c.save(&bad, 1), -1);
    EXPECT_EQ(ruverrno, 2);
}

TEST(Channel, IPv4StaysAscendingAndIsFound) {
    cache_conn c;
    const uint32_t addresses[] = {0x0A000001, 0x0A000003, 0x0A000002, 0xFF000000, 0, 0x80000000};
    for (int i = 0; i < 6; ++i) ASSERT_EQ(c.save(ipv4(addresses[i]).get(), 100 + i), 0);
    ASSERT_EQ(c.conn.cid.ipv4_cnt, 6);
    for (int i = 1; i < 6; ++i) EXPECT_LT(c.conn.cid.ipv4_ipv4[i - 1], c.conn.cid.ipv4_ipv4[i]);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(c.find(ipv4(addresses[i]).get()), 100 + i);
    EXPECT_EQ(c.find(ipv4(0x0A000004).get()), -1);
    EXPECT_EQ(ruverrno, 14);
}

TEST(Channel, EqualIPv4GoesBeforeAndOthersAfter) {
    cache_conn c;
    for (const int cid : {1, 2}) {
        ASSERT_EQ(c.save(ipv4(5).get(), cid), 0);
        ASSERT_EQ(c.save(ipv6(5, 5).get(), cid), 0);
        ASSERT_EQ(c.save(hostid("h").get(), cid), 0);
    }
    EXPECT_EQ(c.conn.cid.ipv4_cid[0], 2);
    EXPECT_EQ(c.conn.cid.ipv6_cid[0], 1);
    EXPECT_EQ(c.conn.cid.hostid_cid[0], 1);
}

TEST(Channel, IPv6IsOrderedByItsBytes) {
    cache_conn c;
    // As numbers 0x01000000 is larger than 0x000000FF; as bytes in memory it is smaller.
    ASSERT_EQ(c.save(ipv6(0x000000FF, 0).get(), 1), 0);
    ASSERT_EQ(c.save(ipv6(0x01000000, 0).get(), 2), 0);
    ASSERT_EQ(c.save(ipv6(0x000000FF, 9).get(), 3), 0);
    EXPECT_EQ(c.conn.cid.ipv6_cid[0], 2);
    EXPECT_EQ(c.conn.cid.ipv6_cid[1], 1);
    EXPECT_EQ(c.conn.cid.ipv6_cid[2], 3);
    EXPECT_EQ(c.find(ipv6(0x01000000, 0).get()), 2);
    EXPECT_EQ(c.find(ipv6(0x000000FF, 0).get()), 1);
    EXPECT_EQ(c.find(ipv6(0x000000FF, 9).get()), 3);
}

TEST(Channel, HostIdsAreOrderedAsStrings) {
    cache_conn c;
    const char *names[] = {"b", "", "abc", "\xC3\xBC", "ab", "B", "AB"};
    for (int i = 0; i < 7; ++i) ASSERT_EQ(c.save(hostid(names[i]).get(), i), 0);
    const char *expected[] = {"", "AB", "B", "ab", "abc", "b", "\xC3\xBC"};
    for (int i = 0; i < 7; ++i) EXPECT_STREQ(c.conn.cid.hostid_hostid[i], expected[i]);
    for (int i = 0; i < 7; ++i) EXPECT_EQ(c.find(hostid(names[i]).get()), i);
    EXPECT_EQ(c.find(hostid("aB").get()), -1);
}

TEST(Channel, IdsOutsideTheHeadersFieldAreUnknownSources) {
    cache_conn c;
    for (const int cid : {-1, INT32_MIN, 65'536, INT32_MAX}) {
        clear_error();
        EXPECT_EQ(c.save(ipv4(1).get(), cid), -1);
        EXPECT_EQ(ruverrno, 14);
        EXPECT_EQ(c.conn.cid.ipv4_cnt, 0);
    }
    EXPECT_EQ(c.save(ipv4(1).get(), 65'535), 0);
    EXPECT_EQ(c.save(ipv4(2).get(), 0), 0);
    EXPECT_EQ(c.find(ipv4(1).get()), 65'535);
    EXPECT_GE(c.conn.cid.known_words, 65'536u / 8);
}

TEST(Channel, TheKnownArrayReachesEveryIdAndStartsZero) {
    cache_conn c;
    for (const int cid : {0, 7, 8, 63, 64, 1000, 9}) {
        ASSERT_EQ(c.save(ipv4(static_cast<uint32_t>(cid)).get(), cid), 0);
        ASSERT_GT(c.conn.cid.known_words, static_cast<size_t>(cid / 8));
    }
    for (size_t i = 0; i < c.conn.cid.known_words; ++i) EXPECT_EQ(c.conn.cid.known[i], 0u);
    for (int type = 1; type <= 4; ++type) EXPECT_FALSE(libruv_known_bit(&c.conn, 1000, type));
    EXPECT_FALSE(libruv_known_bit(&c.conn, 65'535, 4));
}

TEST(Channel, HostileAnswersAreRefused) {
    struct row {
        int32_t cid;
        int error;
    };
    for (const row &r : {row{-1, 14}, row{INT32_MIN, 14}, row{65'536, 14}, row{INT32_MAX, 14}}) {
        fake::version6 v;
        v.channel = r.cid;
        fake::receiver receiver(fake::serve(v));
        conn_ptr conn = open_conn(receiver.port());
        clear_error();
        EXPECT_EQ(libruv_request_channel_id(conn.get(), ipv4(1).get()), -1);
        EXPECT_EQ(ruverrno, r.error);
        EXPECT_EQ(libruv_lookup_channel_id(conn.get(), ipv4(1).get()), -1);
    }
}

TEST(Channel, AHostIdThatTheLengthFieldCannotHoldIsNotSent) {
    RUVConn conn = {};
    conn.skt = -1;
    ds_ptr ds = hostid(std::string(65'536, 'h').c_str());
    clear_error();
    EXPECT_EQ(libruv_request_channel_id(&conn, ds.get()), -1);
    EXPECT_EQ(ruverrno, 2);
    RUVDSInfo bad = {};
    bad.type = 9;
    clear_error();
    EXPECT_EQ(libruv_request_channel_id(&conn, &bad), -1);
    EXPECT_EQ(ruverrno, 2);
}

TEST(Known, TheBitOfChannelAndTypeIsSetByAYes) {
    fake::receiver r(fake::serve());
    conn_ptr conn = open_conn(r.port());
    for (const uint32_t type : {1u, 2u, 3u, 4u}) {
        RUVData_t record = {};
        record.ctl.type = type;
        const int cid = static_cast<int>(9 + type);
        EXPECT_EQ(libruv_am_known(conn.get(), &record, cid), 0);
        for (int other = 1; other <= 4; ++other)
            EXPECT_EQ(libruv_known_bit(conn.get(), cid, other), other == static_cast<int>(type));
        EXPECT_EQ(conn->cid.known[cid / 8] >> (cid % 8 * 4 + (type - 1)) & 1, 1u);
    }
    EXPECT_EQ(libruv_am_known(conn.get(), nullptr, 5), 0);
    EXPECT_FALSE(libruv_known_bit(conn.get(), 5, 1));
}

TEST(Known, ANoSetsNothing) {
    fake::version6 v;
    v.knows = false;
    fake::receiver r(fake::serve(v));
    conn_ptr conn = open_conn(r.port());
    RUVData_t record = {};
    record.ctl.type = 3;
    clear_error();
    EXPECT_EQ(libruv_am_known(conn.get(), &record, 1), -1);
    EXPECT_EQ(ruverrno, 13);
    EXPECT_FALSE(libruv_known_bit(conn.get(), 1, 3));
}

TEST(IsDSKnown, ChecksConnectionAndGeneration) {
    clear_error();
    EXPECT_EQ(RUVIsDSKnown(nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(ruverrno, 2);
    EXPECT_EQ(ruverrno2, 1);
    RUVConn conn = {};
    conn.skt = -1;
    EXPECT_EQ(RUVIsDSKnown(&conn, nullptr, nullptr), -1);
    EXPECT_EQ(ruverrno, 22);
    conn.skt = 0;
    conn.ruv_ver = 1;
    EXPECT_EQ(RUVIsDSKnown(&conn, nullptr, nullptr), -1);
    EXPECT_EQ(ruverrno, 12);
}

TEST(IsDSKnown, AsksForChannelZeroWithoutASource) {
    fake::receiver r(fake::serve());
    conn_ptr conn = open_conn(r.port());
    EXPECT_EQ(RUVIsDSKnown(conn.get(), nullptr, nullptr), 0);
    EXPECT_EQ(r.wait_received(48).substr(32), request_bytes(4, 0));
}

TEST(IsDSKnown, ANewChannelCountsAsUnknownUnlessItIsZero) {
    for (const int32_t assigned : {0, 7}) {
        fake::version6 v;
        v.channel = assigned;
        fake::receiver r(fake::serve(v));
        conn_ptr conn = open_conn(r.port());
        ds_ptr ds = ipv4(0x0A010203);
        RUVData_t record = {};
        record.ctl.type = 3;
        record.ctl.tpt = 9;
        EXPECT_EQ(RUVIsDSKnown(conn.get(), &record, ds.get()), assigned == 0 ? 0 : -1);
        // Now it is cached, and the Receiver is asked.
        EXPECT_EQ(RUVIsDSKnown(conn.get(), &record, ds.get()), 0);
        const std::string ask = request_bytes(4, static_cast<uint16_t>(assigned), 9);
        const std::string expected = request_bytes(3) + std::string("\1\0\4\0\3\2\1\x0A", 8) +
                                     (assigned == 0 ? ask + ask : ask);
        EXPECT_EQ(r.wait_received(32 + expected.size()).substr(32), expected);
    }
}

}  // namespace
