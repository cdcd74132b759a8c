// Every setter against every record: type x version x sub-version x right and wrong arguments.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/ruv/record_kit.h"

namespace {

// What one setter is documented to do.
struct setter_row {
    std::string name;
    int type;
    uint64_t bit;
    std::string versions;                     // the versions that succeed, "3456"
    std::function<int(void *)> set;           // with a value that is in range
    int result;                               // of a successful call
    std::function<bool(RUVData_t &)> stored;  // true when exactly that value is in the record
    // Text setters only: called with any text and length.
    std::function<int(void *, const char *, int)> text;
};

const uint8_t kMac[6] = {1, 2, 3, 4, 5, 6};
const uint32_t kAddress6[4] = {0x11111111, 0x22222222, 0x33333333, 0x44444444};
const char *const kText = "some text";
constexpr int kTextLength = 9;

// A number: the value that is set, and the field that must then hold it.
#define NUMBER(kind, type, name, bit, versions, value, field)                                \
    {                                                                                        \
#name, type, bit, versions, [](void *r) { return RUV##kind##Set_##name(r, value); }, 0,    \
     [](RUVData_t &r) { return r.data.data.field == (value); }, nullptr \
    }
#define ALERT(name, bit, versions, value, field) NUMBER(Alert, 1, name, bit, versions, value, field)
#define FLOW(name, bit, versions, value, field) NUMBER(Flow, 2, name, bit, versions, value, field)
#define WINDOWS(name, bit, versions, value, field) \
    NUMBER(WinEventLog, 4, name, bit, versions, value, field)

#define ARRAY(kind, type, name, bit, versions, value, field)                              \
    {                                                                                     \
#name, type, bit, versions, [](void *r) { return RUV##kind##Set_##name(r, value); }, 0, \
     [](RUVData_t &r) { return memcmp(r.data.data.field, value, sizeof value) == 0; }, nullptr \
    }

#define TEXT_AS(kind, type, name, bit, versions, check)                                  \
    {                                                                                    \
#name, type, bit, versions,                                                            \
     [](void *r) { return RUV##kind##Set_##name(r, kText, 0); }, kTextLength,               \
     [](RUVData_t &r) { return check; },                                                    \
     [](void *r, const char *text, int len) { return RUV##kind##Set_##name(r, text, len); } \
    }

bool is_row(const RUVData_t &r, int row, int id) {
    const RUVCustomRows &rows = r.data.cfdata;
    return rows.id[row] == id && rows.len[row] == kTextLength &&
           static_cast<const void *>(rows.data[row]) == kText;
}

#define ALERT_ROW(name, row, id, bit, versions) \
    TEXT_AS(Alert, 1, name, bit, versions, is_row(r, row, id))
#define WINDOWS_ROW(name, row, bit, versions) \
    TEXT_AS(WinEventLog, 4, name, bit, versions, is_row(r, row, 0))

const std::vector<setter_row> kAlertSetters = {
    ALERT(session_id, 0x1, "456", 0x1122334455667788u, session_id),
    ARRAY(Alert, 1, src_mac, 0x2, "123456", kMac, src_mac),
    ARRAY(Alert, 1, dst_mac, 0x4, "123456", kMac, dst_mac),
    ALERT(sigid, 0x8, "123456", 0xFFFFFFFEu, sigid),
    ALERT(norm_sigid, 0x10, "456", 0xFFFFFFFDu, norm_sigid),
    ALERT(event_count, 0x20, "123456", 0xFFFFFFFCu, cnt),
    ALERT(src_ipv4, 0x40, "123456", 0xC0A80101u, sip4),
    ARRAY(Alert, 1, src_ipv6, 0x40, "123456", kAddress6, sip6),
    ALERT(dst_ipv4, 0x80, "123456", 0xC0A80102u, dip4),
    ARRAY(Alert, 1, dst_ipv6, 0x80, "123456", kAddress6, dip6),
    ALERT(first_time, 0x100, "123456", 0xFFFFFFFBu, ftime),
    ALERT(last_time, 0x200, "123456", 0xFFFFFFFAu, ltime),
    ALERT(last_time_usec, 0x400, "123456", 999999u, ltime_usec),
    ALERT(src_port, 0x800, "123456", 65535, sport),
    ALERT(dst_port, 0x1000, "123456", 65534, dport),
    ALERT(vlan, 0x2000, "123456", 65533, vlan),
    ALERT(sequence, 0x4000, "456", 65532, sequence),
    ALERT(protocol, 0x8000, "123456", 255, protocol),
    ALERT(flow, 0x10000, "123456", 1, flow),
    ALERT(action, 0x20000, "123456", 254, action),
    ALERT(severity, 0x40000, "123456", 100, severity),
    ALERT(trusted, 0x80000, "12356", 253, trusted),
    ALERT(sig_generator, 0x100000, "12356", 252, sig_gen),
    TEXT_AS(Alert, 1, message, 0x200000, "123456",
            r.data.data.msg == kText && r.data.data.msg_len == kTextLength),
    ALERT_ROW(src_user, 6, 7, 0x400000, "13456"),
    ALERT_ROW(dst_user, 5, 6, 0x800000, "13456"),
    ALERT_ROW(application, 0, 1, 0x1000000, "13456"),
    ALERT_ROW(hostname, 3, 4, 0x2000000, "13456"),
    ALERT_ROW(domain, 2, 3, 0x4000000, "13456"),
    ALERT_ROW(command, 1, 2, 0x8000000, "12356"),
    ALERT_ROW(object, 4, 5, 0x10000000, "456"),
    {"packet", 1, 0x20000000, "123456", [](void *r) { return RUVAlertSet_packet(r, kText, 4); }, 4,
     [](RUVData_t &r) {
         return static_cast<const void *>(r.data.data.pkt) == kText && r.data.data.pkt_len == 4;
     },
     nullptr},
    {"3rd_party_type", 1, 0, "6", [](void *r) { return RUVAlertSet_3rd_party_type(r, 65535); }, 0,
     [](RUVData_t &r) { return r.ctl.tpt == 65535; }, nullptr},
    {"flow_id", 1, 0, "", [](void *r) { return RUVAlertSet_flow_id(r, 1); }, 0,
     [](RUVData_t &r) { return r.data.data.flow_id == 0; }, nullptr},
};

const std::vector<setter_row> kFlowSetters = {
    FLOW(session_id, 0x1, "6", 0x1122334455667788u, session_id),
    ARRAY(Flow, 2, src_mac, 0x2, "3456", kMac, src_mac),
    ARRAY(Flow, 2, dst_mac, 0x4, "3456", kMac, dst_mac),
    FLOW(src_asn_geo, 0x8, "3456", 0x1111111111111111u, srcasngeo),
    FLOW(dst_asn_geo, 0x8, "3456", 0x2222222222222222u, dstasngeo),
    FLOW(flow_count, 0x20, "3456", 0xFFFFFFFEu, cnt),
    FLOW(src_ipv4, 0x40, "3456", 0xC0A80101u, sip4),
    ARRAY(Flow, 2, src_ipv6, 0x40, "3456", kAddress6, sip6),
    FLOW(dst_ipv4, 0x80, "3456", 0xC0A80102u, dip4),
    ARRAY(Flow, 2, dst_ipv6, 0x80, "3456", kAddress6, dip6),
    FLOW(first_time, 0x100, "3456", 0xFFFFFFFDu, ftime),
    FLOW(last_time, 0x200, "3456", 0xFFFFFFFCu, ltime),
    FLOW(last_time_usec, 0x400, "3456", 999999u, ltime_usec),
    FLOW(src_port, 0x800, "3456", 65535, sport),
    FLOW(dst_port, 0x1000, "3456", 65534, dport),
    FLOW(vlan, 0x2000, "3456", 65533, vlan),
    FLOW(dir, 0x4000, "3456", 255, dir),
    FLOW(protocol, 0x8000, "3456", 254, protocol),
    FLOW(dst_bytes, 0x10000, "3456", 0x3333333333333333u, dstbytes),
    FLOW(src_bytes, 0x20000, "3456", 0x4444444444444444u, srcbytes),
    FLOW(dst_packets, 0x40000, "3456", 0x5555555555555555u, dstpackets),
    FLOW(src_packets, 0x80000, "3456", 0x6666666666666666u, srcpackets),
    FLOW(conn_state, 0x100000, "6", 253, connstate),
    FLOW(tcp_flags, 0x200000, "6", 252, tcp_flags),
    FLOW(tos_src, 0x400000, "6", 251, tos_src),
    FLOW(duration, 0x800000, "3456", 0xFFFFFFFBu, duration),
    FLOW(duration_usec, 0x1000000, "3456", 999998u, duration_usec),
    FLOW(iface_in, 0x2000000, "3456", 65532, iface_in),
    FLOW(iface_out, 0x4000000, "3456", 65531, iface_out),
};

const std::vector<setter_row> kSyslogSetters = {
    TEXT_AS(Syslog, 3, message, 0x2, "3456",
            r.data.data.msg == kText && r.data.data.pkt_len == kTextLength),
    NUMBER(Syslog, 3, collect_time, 0x4, "6", 0xFFFFFFFFu, colltime),
    {"3rd_party_type", 3, 0, "123456", [](void *r) { return RUVSyslogSet_3rd_party_type(r, 7); }, 0,
     [](RUVData_t &r) { return r.ctl.tpt == 7; }, nullptr},
};

const std::vector<setter_row> kWindowsSetters = {
    WINDOWS_ROW(log_file, 0, 0x2, "6"),
    WINDOWS(record_num, 0x4, "6", 0xFFFFFFFFu, rec_num),
    WINDOWS_ROW(source_name, 1, 0x8, "3456"),
    WINDOWS(event_id, 0x10, "3456", 65535, eventid),
    {"windows_ver", 4, 0x20, "3456", [](void *r) { return RUVWinEventLogSet_windows_ver(r, 6, 1); },
     0, [](RUVData_t &r) { return r.data.data.win_ver == 61; }, nullptr},
    WINDOWS(gen_time, 0x40, "3456", 0xFFFFFFFEu, create_time),
    WINDOWS(event_type, 0x80, "3456", 5, eventtype),
    WINDOWS_ROW(hostname, 2, 0x100, "3456"),
    WINDOWS_ROW(user, 3, 0x200, "6"),
    WINDOWS_ROW(category, 4, 0x400, "6"),
    TEXT_AS(WinEventLog, 4, insertion_string, 0x800, "3456",
            r.data.data.istrings[0] == kText && r.data.data.istringslen[0] == kTextLength &&
                r.data.data.num_istrings == 1),
    TEXT_AS(WinEventLog, 4, message, 0x1000, "3456",
            r.data.data.msg == kText && r.data.data.pkt_len == kTextLength),
};

const std::vector<setter_row> &setters() {
    static const std::vector<setter_row> all = [] {
        std::vector<setter_row> rows = kAlertSetters;
        for (const auto *more : {&kFlowSetters, &kSyslogSetters, &kWindowsSetters})
            rows.insert(rows.end(), more->begin(), more->end());
        return rows;
    }();
    return all;
}

std::string bytes_of(const RUVData_t *record) {
    return std::string(reinterpret_cast<const char *>(record), sizeof *record);
}

// Calls a setter that must fail, and expects the record to be as it was.
void expect_refusal(const setter_row &row, RUVData_t *record, int error) {
    const std::string before = bytes_of(record);
    ruverrno = 0;
    EXPECT_EQ(-1, row.set(record)) << row.name;
    EXPECT_EQ(error, ruverrno) << row.name;
    EXPECT_EQ(before, bytes_of(record)) << row.name;
}

void expect_success(const setter_row &row, RUVData_t *record) {
    ruverrno = -77;
    record->data.ok_to_send = 0;
    EXPECT_EQ(row.result, row.set(record)) << row.name;
    EXPECT_EQ(-77, ruverrno) << row.name;
    EXPECT_TRUE(row.stored(*record)) << row.name;
    EXPECT_EQ(row.bit, record->data.ok_to_send) << row.name;
    record->data.ok_to_send = ~uint64_t{0} & ~row.bit;
    if (row.name == "insertion_string") record->data.data.num_istrings = 0;
    EXPECT_EQ(row.result, row.set(record)) << row.name;
    EXPECT_EQ(~uint64_t{0}, record->data.ok_to_send) << row.name << " keeps the other bits";
}

TEST(SetterGrid, EveryTypeVersionAndSubversion) {
    ASSERT_EQ(34u + 29u + 3u + 12u, setters().size());
    for (const setter_row &row : setters())
        for (int type = 1; type <= 4; ++type)
            for (int version = 1; version <= 6; ++version)
                for (int subver = 1; subver <= 3; ++subver) {
                    SCOPED_TRACE(testing::Message() << type << " " << version << "." << subver);
                    const auto record = kit::make(type, version, subver);
                    const char digit = static_cast<char>('0' + version);
                    if (type != row.type)
                        expect_refusal(row, record.get(), 50);
                    else if (row.versions.find(digit) == std::string::npos)
                        expect_refusal(row, record.get(), 51);
                    else
                        expect_success(row, record.get());
                }
}

TEST(SetterGrid, NullRecord) {
    for (const setter_row &row : setters()) {
        ruverrno = ruverrno2 = 0;
        EXPECT_EQ(-1, row.set(nullptr)) << row.name;
        EXPECT_EQ(2, ruverrno) << row.name;
        EXPECT_EQ(1, ruverrno2) << row.name;
    }
}

// "No value" comes before every other check: the record may be anything.
TEST(SetterGrid, NullTextOfLengthZeroIsNoValue) {
    for (const setter_row &row : setters()) {
        if (!row.text) continue;
        EXPECT_EQ(0, row.text(nullptr, nullptr, 0)) << row.name;
        for (int type = 1; type <= 4; ++type)
            for (int version = 1; version <= 6; ++version) {
                const auto record = kit::make(type, version);
                const std::string before = bytes_of(record.get());
                ruverrno = -77;
                EXPECT_EQ(0, row.text(record.get(), nullptr, 0)) << row.name;
                EXPECT_EQ(-77, ruverrno);
                EXPECT_EQ(before, bytes_of(record.get()));
            }
    }
}

TEST(SetterGrid, BadTextsAreRefusedAfterTheTypeAndBeforeTheVersion) {
    for (const setter_row &row : setters()) {
        if (!row.text) continue;
        for (int type = 1; type <= 4; ++type)
            for (int version = 1; version <= 6; ++version) {
                const auto record = kit::make(type, version);
                const std::string before = bytes_of(record.get());
                for (const auto &[text, len] :
                     {std::pair{kText, -1}, std::pair{kText, INT_MIN},
                      std::pair{(const char *)nullptr, 1}, std::pair{(const char *)nullptr, -1}}) {
                    ruverrno = 0;
                    EXPECT_EQ(-1, row.text(record.get(), text, len)) << row.name;
                    EXPECT_EQ(type == row.type ? 52 : 50, ruverrno) << row.name;
                }
                EXPECT_EQ(before, bytes_of(record.get())) << row.name;
            }
    }
}

// A given length wins over the terminator, and an empty text is a value.
TEST(SetterGrid, LengthsOfTexts) {
    for (const setter_row &row : setters()) {
        if (!row.text) continue;
        const auto record = kit::make(row.type, 6, 2);
        EXPECT_EQ(4, row.text(record.get(), "abcdefgh", 4)) << row.name;
        EXPECT_EQ(3, row.text(record.get(), "a\0b", 3)) << row.name;
        EXPECT_EQ(1, row.text(record.get(), "a\0b", 0)) << row.name;
        EXPECT_EQ(row.bit, record->data.ok_to_send) << row.name;
        RUVResetData(record.get());
        EXPECT_EQ(0, row.text(record.get(), "", 0)) << row.name;
        EXPECT_EQ(row.bit, record->data.ok_to_send) << row.name;
    }
}

}  // namespace
