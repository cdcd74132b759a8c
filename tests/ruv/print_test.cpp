#include <cstring>

#include "ruv/channel.h"
#include "tests/ruv/link_kit.h"

namespace {

TEST(PrintConn, NullIsAnError) {
    clear_error();
    EXPECT_EQ(RUVPrintConn(nullptr), -1);
    EXPECT_EQ(ruverrno, 2);
    EXPECT_EQ(ruverrno2, 1);
    clear_error();
    EXPECT_EQ(RUVPrintDSInfo(nullptr), -1);
    EXPECT_EQ(ruverrno, 2);
    EXPECT_EQ(ruverrno2, 1);
}

TEST(PrintConn, ANewHandle) {
    conn_ptr conn(RUVAllocConn("127.0.0.1", 8082, 0, 0, 0));
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(RUVPrintConn(conn.get()), 0); }),
              "RUVConn Struct Info:\n"
              "\tDest: 127.0.0.1 (127.0.0.1), Source IP: , Port: 8082\n"
              "\tConnected: No, SSL: No SSL\n"
              "\tRUV Version: 6, RUV Version Reqested: any\n"
              "\tIP Mode: IPv4/6, SSL Mode: none\n"
              "\tData Source Auto-Learning: disabled\n"
              "\tSupported Data Types:\n");
}

TEST(PrintConn, ShowsEveryModeInWords) {
    conn_ptr conn(RUVAllocConn("::1", 1, 2, 1, 1));
    conn->ruv_ver = 1;
    conn->allow_to_auto_learn = 1;
    EXPECT_EQ(stderr_of([&] { RUVPrintConn(conn.get()); }),
              "RUVConn Struct Info:\n"
              "\tDest: ::1 (::1), Source IP: , Port: 1\n"
              "\tConnected: No, SSL: No SSL\n"
              "\tRUV Version: <= 5, RUV Version Reqested: <= 5\n"
              "\tIP Mode: IPv6, SSL Mode: required\n"
              "\tData Source Auto-Learning: enabled\n"
              "\tSupported Data Types:\n");
    conn_ptr other(RUVAllocConn("127.0.0.1", 1, 1, 2, 2));
    const std::string text = stderr_of([&] { RUVPrintConn(other.get()); });
    EXPECT_NE(text.find("Reqested: 6\n"), std::string::npos);
    EXPECT_NE(text.find("\tIP Mode: IPv4, SSL Mode: request\n"), std::string::npos);
}

TEST(PrintConn, ListsWhatTheReceiverTakes) {
    fake::version6 v;
    v.versions = {{6, 0, 0}, {6, 0, 2}, {6, 0, 8}, {6, 0, 9}, {6, 0, 15},
                  {6, 1, 0}, {6, 1, 1}, {5, 3, 0}, {6, 3, 1}, {6, 4, 2}};
    fake::receiver r(fake::serve(v));
    conn_ptr conn = open_conn(r.port());
    const std::string text = stderr_of([&] { RUVPrintConn(conn.get()); });
    EXPECT_NE(text.find("Source IP: 127.0.0.1, "), std::string::npos);
    EXPECT_NE(text.find("\tConnected: Yes, SSL: No SSL\n"), std::string::npos);
    EXPECT_EQ(text.substr(text.find("\tSupported")),
              "\tSupported Data Types:\n"
              "\t\tRequest/Information:\tNOP, ReqDataVers, AmKnown2, Unknown[9], Unknown[15]\n"
              "\t\tAlert:\t\t\tv6:1, v6:2, \n"
              "\t\tSyslog:\t\t\tv5:1, v6:2, \n"
              "\t\tWindows Events:\t\tv6:3, \n");
    // Cached channels never show: the detected generation is 2, not 6.
    const uint32_t address = 1;
    ds_ptr ds(RUVAllocDSInfo(1, &address));
    ASSERT_EQ(libruv_save_channel_id(conn.get(), ds.get(), 3), 0);
    EXPECT_EQ(stderr_of([&] { RUVPrintConn(conn.get()); }), text);
}

TEST(PrintConn, ShowsChannelsWhenTheGenerationSaysSo) {
    conn_ptr conn = make_conn(1);
    const uint32_t ipv4 = 0x0A010203;
    const uint32_t ipv6[4] = {0x20010DB8, 0, 0, 1};
    ds_ptr sources[] = {ds_ptr(RUVAllocDSInfo(1, &ipv4)), ds_ptr(RUVAllocDSInfo(2, ipv6)),
                        ds_ptr(RUVAllocDSInfo(3, "web-1"))};
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(libruv_save_channel_id(conn.get(), sources[i].get(), 10 + i), 0);
    conn->ruv_ver = 6;
    const std::string text = stderr_of([&] { RUVPrintConn(conn.get()); });
    EXPECT_EQ(text.substr(text.find("\tChannel")),
              "\tChannel ID Info:\n"
              "\t\tIPv4 Address -- Channel ID\n\t\t10.1.2.3 -- 10\n"
              "\t\tIPv6 Address -- Channel ID\n\t\t2001:db8::1 -- 11\n"
              "\t\tHost ID -- Channel ID\n\t\tweb-1 -- 12\n");
}

TEST(PrintDSInfo, EveryKindInItsTextForm) {
    const uint32_t ipv4 = 0x0A010203;
    const uint32_t ipv6[4] = {0x20010DB8, 0, 0, 1};
    struct row {
        int type;
        const void *data;
        const char *text;
    };
    const row rows[] = {{1, &ipv4, "IPv4, 10.1.2.3\n"},
                        {2, ipv6, "IPv6, 2001:db8::1\n"},
                        {3, "web-1", "HostID, web-1\n"}};
    for (const row &r : rows) {
        ds_ptr ds(RUVAllocDSInfo(r.type, r.data));
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(RUVPrintDSInfo(ds.get()), 0); }),
                  std::string("Data Source Info:\n\tType: ") + r.text);
    }
}

}  // namespace
