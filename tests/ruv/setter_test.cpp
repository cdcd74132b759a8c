// Setters: ranges, clamps and the odd ones. What all have in common is in setter_grid_test.cpp.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "tests/ruv/record_kit.h"

namespace {

// Calls that must be refused with `error` and change nothing.
template <class Call>
void expect_error(int error, const kit::record_ptr &record, Call call) {
    const RUVData_t before = *record;
    ruverrno = 0;
    EXPECT_EQ(-1, call(record.get()));
    EXPECT_EQ(error, ruverrno);
    EXPECT_EQ(0, memcmp(&before, record.get(), sizeof before));
}

TEST(Setter, RangesOfAlertValues) {
    const auto record = kit::make(1, 6);
    for (int value = 0; value <= 255; ++value) {
        const auto byte = static_cast<uint8_t>(value);
        if (value <= 1)
            EXPECT_EQ(0, RUVAlertSet_flow(record.get(), byte));
        else
            expect_error(57, record, [=](void *r) { return RUVAlertSet_flow(r, byte); });
        if (value <= 100)
            EXPECT_EQ(0, RUVAlertSet_severity(record.get(), byte));
        else
            expect_error(57, record, [=](void *r) { return RUVAlertSet_severity(r, byte); });
        EXPECT_EQ(0, RUVAlertSet_action(record.get(), byte));
        EXPECT_EQ(value, record->data.data.action);
    }
    EXPECT_EQ(1, record->data.data.flow);
    EXPECT_EQ(100, record->data.data.severity);
}

TEST(Setter, RangeComesBeforeVersionAndAfterType) {
    const auto old_event = kit::make(4, 2);
    expect_error(57, old_event, [](void *r) { return RUVWinEventLogSet_event_type(r, 6); });
    expect_error(51, old_event, [](void *r) { return RUVWinEventLogSet_event_type(r, 5); });
    expect_error(57, old_event, [](void *r) { return RUVWinEventLogSet_windows_ver(r, 7, 0); });
    expect_error(51, old_event, [](void *r) { return RUVWinEventLogSet_windows_ver(r, 5, 0); });
    expect_error(50, old_event, [](void *r) { return RUVAlertSet_severity(r, 200); });
    const auto syslog = kit::make(3, 6);
    expect_error(50, syslog, [](void *r) { return RUVWinEventLogSet_windows_ver(r, 7, 0); });
}

TEST(Setter, WindowsVersions) {
    for (int major = -2; major <= 12; ++major)
        for (int minor = -2; minor <= 5; ++minor) {
            const auto record = kit::make(4, 6);
            const bool known = (major == 5 && minor >= 0 && minor <= 2) ||
                               (major == 6 && minor >= 0 && minor <= 1);
            if (!known) {
                expect_error(57, record, [=](void *r) {
                    return RUVWinEventLogSet_windows_ver(r, major, minor);
                });
                continue;
            }
            EXPECT_EQ(0, RUVWinEventLogSet_windows_ver(record.get(), major, minor));
            EXPECT_EQ(major * 10 + minor, record->data.data.win_ver);
            EXPECT_EQ(0x20u, record->data.ok_to_send);
        }
}

TEST(Setter, WindowsEventTypes) {
    const auto record = kit::make(4, 6);
    for (int value = 0; value <= 255; ++value) {
        const auto byte = static_cast<uint8_t>(value);
        if (value <= 5)
            EXPECT_EQ(0, RUVWinEventLogSet_event_type(record.get(), byte));
        else
            expect_error(57, record,
                         [=](void *r) { return RUVWinEventLogSet_event_type(r, byte); });
    }
}

TEST(Setter, AlertTextsAreClampedAt255) {
    const std::string text(400, 'x');
    using setter = int (*)(void *, const char *, int);
    const std::pair<setter, int> rows[] = {{RUVAlertSet_application, 0}, {RUVAlertSet_command, 1},
                                           {RUVAlertSet_domain, 2},      {RUVAlertSet_hostname, 3},
                                           {RUVAlertSet_object, 4},      {RUVAlertSet_dst_user, 5},
                                           {RUVAlertSet_src_user, 6}};
    for (const int length : {254, 255, 256, 400, 0}) {
        const int kept = length == 0 ? 255 : std::min(length, 255);
        const auto record = kit::make(1, 6);
        EXPECT_EQ(kept, RUVAlertSet_message(record.get(), text.c_str(), length));
        EXPECT_EQ(kept, record->data.data.msg_len);
        for (const auto &[set, row] : rows) {
            EXPECT_EQ(kept, set(record.get(), text.c_str(), length));
            EXPECT_EQ(kept, record->data.cfdata.len[row]);
            EXPECT_EQ(row + 1, record->data.cfdata.id[row]);
        }
    }
}

TEST(Setter, PacketIsClampedAt8000) {
    const std::string bytes(9000, '\1');
    const auto record = kit::make(1, 6);
    for (const int length : {1, 7999, 8000, 8001, 9000}) {
        EXPECT_EQ(std::min(length, 8000), RUVAlertSet_packet(record.get(), bytes.data(), length));
        EXPECT_EQ(std::min(length, 8000), record->data.data.pkt_len);
    }
}

TEST(Setter, PacketOfLengthZeroIsMeasuredLikeAText) {
    const auto record = kit::make(1, 6);
    EXPECT_EQ(3, RUVAlertSet_packet(record.get(), "abc", 0));
    EXPECT_EQ(3, record->data.data.pkt_len);
    EXPECT_EQ(0x20000000u, record->data.ok_to_send);
    EXPECT_EQ(0, RUVAlertSet_packet(record.get(), "", 0));
    EXPECT_EQ(0, record->data.data.pkt_len);
    // No byte behind the longest packet is read: this buffer has none, and no zero byte either.
    const auto bytes = std::make_unique<char[]>(8000);
    memset(bytes.get(), 1, 8000);
    EXPECT_EQ(8000, RUVAlertSet_packet(record.get(), bytes.get(), 0));
    EXPECT_EQ(8000, record->data.data.pkt_len);
    RUVResetData(record.get());
    EXPECT_EQ(0, RUVAlertSet_packet(record.get(), nullptr, 0));
    EXPECT_EQ(0u, record->data.ok_to_send);
    expect_error(52, record, [](void *r) { return RUVAlertSet_packet(r, nullptr, 1); });
    expect_error(52, record, [](void *r) { return RUVAlertSet_packet(r, "abc", -1); });
}

TEST(Setter, NullArraysAreBadArguments) {
    const auto alert = kit::make(1, 6);
    expect_error(52, alert, [](void *r) { return RUVAlertSet_src_mac(r, nullptr); });
    expect_error(52, alert, [](void *r) { return RUVAlertSet_dst_ipv6(r, nullptr); });
    const auto flow = kit::make(2, 6);
    expect_error(52, flow, [](void *r) { return RUVFlowSet_dst_mac(r, nullptr); });
    expect_error(52, flow, [](void *r) { return RUVFlowSet_src_ipv6(r, nullptr); });
}

TEST(Setter, AlertTextsDoNotTakeRowsFromCustomFields) {
    const auto record = kit::make(1, 6, 2);
    record->data.cfdata.id[3] = 500;
    expect_error(53, record, [](void *r) { return RUVAlertSet_hostname(r, "h", 1); });
    EXPECT_EQ(1, RUVAlertSet_domain(record.get(), "d", 1));
}

TEST(Setter, WindowsRowLengthsKeepTheirLow8Bits) {
    const std::string text(600, 'x');
    const auto record = kit::make(4, 6);
    for (const auto &[length, kept] : {std::pair{255, 255}, {256, 0}, {257, 1}, {600, 88}}) {
        EXPECT_EQ(kept, RUVWinEventLogSet_log_file(record.get(), text.data(), length));
        EXPECT_EQ(kept, record->data.cfdata.len[0]);
        EXPECT_EQ(kept, RUVWinEventLogSet_source_name(record.get(), text.data(), length));
        EXPECT_EQ(kept, RUVWinEventLogSet_hostname(record.get(), text.data(), length));
        EXPECT_EQ(kept, RUVWinEventLogSet_user(record.get(), text.data(), length));
        EXPECT_EQ(kept, RUVWinEventLogSet_category(record.get(), text.data(), length));
        EXPECT_EQ(kept, record->data.cfdata.len[4]);
    }
    EXPECT_EQ(0x2u | 0x8 | 0x100 | 0x200 | 0x400, record->data.ok_to_send);
    for (int row = 0; row < 10; ++row) EXPECT_EQ(0, record->data.cfdata.id[row]);
}

TEST(Setter, MessagesKeepWhatTheirLengthHolds) {
    const std::string text(70000, 'x');
    const auto event = kit::make(4, 6);
    EXPECT_EQ(65535, RUVWinEventLogSet_message(event.get(), text.c_str(), 0));
    EXPECT_EQ(65535, event->data.data.pkt_len);
    const auto syslog = kit::make(3, 6);
    EXPECT_EQ(65535, RUVSyslogSet_message(syslog.get(), text.c_str(), 65536));
    EXPECT_EQ(65535, syslog->data.data.pkt_len);
}

// The 33rd string is taken, the 34th is not; the count comes before the version.
TEST(Setter, InsertionStrings) {
    for (const int version : {3, 6}) {
        const auto record = kit::make(4, version);
        const std::string text(40, 's');
        for (int i = 0; i < 33; ++i) {
            EXPECT_EQ(i + 1,
                      RUVWinEventLogSet_insertion_string(record.get(), text.data() + i, i + 1));
            EXPECT_EQ(i + 1, record->data.data.num_istrings);
            EXPECT_EQ(text.data() + i, record->data.data.istrings[i]);
            EXPECT_EQ(static_cast<uint32_t>(i + 1), record->data.data.istringslen[i]);
        }
        expect_error(58, record,
                     [](void *r) { return RUVWinEventLogSet_insertion_string(r, "x", 1); });
        expect_error(52, record,
                     [](void *r) { return RUVWinEventLogSet_insertion_string(r, "x", -1); });
        EXPECT_EQ(0, RUVWinEventLogSet_insertion_string(record.get(), nullptr, 0));
        record->ctl.ver = 2;
        expect_error(58, record,
                     [](void *r) { return RUVWinEventLogSet_insertion_string(r, "x", 1); });
        RUVResetData(record.get());
        expect_error(51, record,
                     [](void *r) { return RUVWinEventLogSet_insertion_string(r, "x", 1); });
    }
}

TEST(Setter, ThirdPartyTypeOutlivesAReset) {
    const auto record = kit::make(3, 4);
    EXPECT_EQ(0, RUVSyslogSet_3rd_party_type(record.get(), 65535));
    EXPECT_EQ(0u, record->data.ok_to_send);
    RUVResetData(record.get());
    EXPECT_EQ(65535, record->ctl.tpt);
}

TEST(Setter, BytesAreCopiedAndTextsAreNot) {
    const auto record = kit::make(1, 6);
    uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    char text[] = "before";
    RUVAlertSet_src_mac(record.get(), mac);
    RUVAlertSet_message(record.get(), text, 0);
    mac[0] = 99;
    EXPECT_EQ(1, record->data.data.src_mac[0]);
    EXPECT_EQ(text, record->data.data.msg);
}

TEST(Setter, TraceLinesOfASetter) {
    const auto record = kit::make(3, 5);
    ASSERT_EQ(0, RUVSetLogging(0x01));
    testing::internal::CaptureStderr();
    RUVSyslogSet_message(record.get(), "m", 1);
    RUVSyslogSet_collect_time(record.get(), 1);
    const std::string lines = testing::internal::GetCapturedStderr();
    RUVSetLogging(0);
    EXPECT_EQ(
        "libruv -- function enter: RUVSyslogSet_message\n"
        "libruv -- function exit: RUVSyslogSet_message\n"
        "libruv -- function enter: RUVSyslogSet_collect_time\n"
        "libruv -- function error exit: RUVSyslogSet_collect_time [51]\n",
        lines);
}

}  // namespace
