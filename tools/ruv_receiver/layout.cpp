#include "tools/ruv_receiver/layout.h"

#include "tools/common/wire_layout.h"

namespace receiver {
namespace {

using enum shape;

constexpr field kAlertLegacyFields[] = {
    {"nadver", 0, 1},
    {"severity", 1, 1},
    {"action", 2, 1},
    {"protocol", 3, 1},
    {"dst_mac", 4, 6, mac},
    {"src_mac", 10, 6, mac},
    {"flow", 16, 1},
    {"message_len", 17, 1},
    {"vlan", 18, 2},
    {"src_port", 20, 2},
    {"dst_port", 22, 2},
    {"ipv6_sip", 24, 12, hex},
    {"sip", 36, 4, ipv4},
    {"source_address", 24, 16, either},
    {"ipv6_dip", 40, 12, hex},
    {"dip", 52, 4, ipv4},
    {"destination_address", 40, 16, either},
    {"sig_id", 56, 4},
    {"firsttime", 60, 4},
    {"lasttime", 64, 4},
    {"lasttime_usec", 68, 4},
    {"eventcount", 72, 4},
    {"packet_len", 76, 2},
    {"src_usrname_len", 78, 1, number, 1, 2},
    {"dst_usrname_len", 79, 1, number, 1, 2},
    {"appname_len", 80, 1, number, 1, 2},
    {"hostname_len", 81, 1, number, 1, 2},
    {"domainname_len", 82, 1, number, 1, 2},
    {"rsrvd_chara", 83, 1},
    {"ipv6_dsip", 84, 12, hex, 1, 3},
    {"dsip", 96, 4, ipv4, 1, 3},
    {"data_source_address", 84, 16, source, 1, 3},
    {"rsvd64", 100, 8},
    {"session_id", 108, 8, number, 1, 4},
    {"norm_sigid", 116, 4, number, 1, 4},
    {"sequence", 120, 2, number, 1, 4},
    {"trusted", 122, 1, number, 1, 4},
    {"sig_generator", 123, 1, number, 1, 4},
    {"commandname_len", 124, 1, number, 1, 4},
    {"objectname_len", 125, 1, number, 1, 4},
    {"rsrvd_charb", 126, 2},
};
constexpr part kAlertLegacyParts[] = {
    {"message", 17, 1},         {"src_usrname", 78, 1, 2}, {"dst_usrname", 79, 1, 2},
    {"appname", 80, 1, 2},      {"hostname", 81, 1, 2},    {"domainname", 82, 1, 2},
    {"commandname", 124, 1, 4}, {"objectname", 125, 1, 4}, {"packet", 76, 2, 0, true},
};

constexpr field kAlertV1Fields[] = {
    {"session_id", 0, 8},       {"src_mac", 8, 6, mac},
    {"dst_mac", 14, 6, mac},    {"sigid", 20, 4},
    {"norm_sigid", 24, 4},      {"evntcnt", 28, 4},
    {"sip", 32, 16, either},    {"dip", 48, 16, either},
    {"ftime", 64, 4},           {"ltime", 68, 4},
    {"ltime_usec", 72, 4},      {"sport", 76, 2},
    {"dport", 78, 2},           {"vlan", 80, 2},
    {"sequence", 82, 2},        {"packet_len", 84, 2},
    {"protocol", 86, 1},        {"flow", 87, 1},
    {"action", 88, 1},          {"severity", 89, 1},
    {"trusted", 90, 1},         {"sig_generator", 91, 1},
    {"message_len", 92, 1},     {"src_usrname_len", 93, 1},
    {"dst_usrname_len", 94, 1}, {"appname_len", 95, 1},
    {"hostname_len", 96, 1},    {"domainname_len", 97, 1},
    {"commandname_len", 98, 1}, {"objectname_len", 99, 1},
};
constexpr part kAlertV1Parts[] = {
    {"message", 92, 1},     {"src_usrname", 93, 1}, {"dst_usrname", 94, 1},
    {"appname", 95, 1},     {"hostname", 96, 1},    {"domainname", 97, 1},
    {"commandname", 98, 1}, {"objectname", 99, 1},  {"packet", 84, 2, 0, true},
};

constexpr field kAlertV2Fields[] = {
    {"session_id", 0, 8},
    {"userdatabin", 8, 80, numbers, 10},
    {"src_mac", 88, 6, mac},
    {"dst_mac", 94, 6, mac},
    {"sigid", 100, 4},
    {"norm_sigid", 104, 4},
    {"evntcnt", 108, 4},
    {"sip6", 112, 16, ipv6},
    {"dip6", 128, 16, ipv6},
    {"sip4", 144, 4, ipv4},
    {"dip4", 148, 4, ipv4},
    {"ftime", 152, 4},
    {"ltime", 156, 4},
    {"ltime_usec", 160, 4},
    {"sport", 164, 2},
    {"dport", 166, 2},
    {"vlan", 168, 2},
    {"sequence", 170, 2},
    {"packet_len", 172, 2},
    {"userdataid", 174, 20, numbers, 10},
    {"userdatalen", 194, 10, numbers, 10},
    {"protocol", 204, 1},
    {"flow", 205, 1},
    {"action", 206, 1},
    {"severity", 207, 1},
    {"trusted", 208, 1},
    {"sig_generator", 209, 1},
    {"message_len", 210, 1},
    {"pad", 211, 5, hex},
};
constexpr part kAlertV2Parts[] = {{"message", 210, 1}, {"packet", 172, 2, 0, true}};

constexpr field kAlertV3Fields[] = {
    {"flow_id", 0, 8},
    {"session_id", 8, 8},
    {"userdatabin", 16, 80, numbers, 10},
    {"src_mac", 96, 6, mac},
    {"dst_mac", 102, 6, mac},
    {"sigid", 108, 4},
    {"norm_sigid", 112, 4},
    {"evntcnt", 116, 4},
    {"sip6", 120, 16, ipv6},
    {"dip6", 136, 16, ipv6},
    {"sip4", 152, 4, ipv4},
    {"dip4", 156, 4, ipv4},
    {"ftime", 160, 4},
    {"ltime", 164, 4},
    {"ltime_usec", 168, 4},
    {"sport", 172, 2},
    {"dport", 174, 2},
    {"vlan", 176, 2},
    {"sequence", 178, 2},
    {"packet_len", 180, 2},
    {"userdataid", 182, 20, numbers, 10},
    {"userdatalen", 202, 10, numbers, 10},
    {"protocol", 212, 1},
    {"flow", 213, 1},
    {"action", 214, 1},
    {"severity", 215, 1},
    {"trusted", 216, 1},
    {"sig_generator", 217, 1},
    {"message_len", 218, 1},
    {"pad", 219, 5, hex},
};
constexpr part kAlertV3Parts[] = {{"message", 218, 1}, {"packet", 180, 2, 0, true}};

constexpr field kFlowLegacyFields[] = {
    {"nadver", 0, 1},
    {"nadtype", 1, 1},
    {"pad", 2, 2, hex},
    {"destbytes", 4, 8},
    {"sourcebytes", 12, 8},
    {"destpackets", 20, 8},
    {"sourcepackets", 28, 8},
    {"destasngeo", 36, 8},
    {"sourceasngeo", 44, 8},
    {"dst_mac", 52, 6, mac},
    {"src_mac", 58, 6, mac},
    {"ipv6_sip", 64, 12, hex},
    {"sip", 76, 4, ipv4},
    {"source_address", 64, 16, either},
    {"ipv6_dip", 80, 12, hex},
    {"dip", 92, 4, ipv4},
    {"destination_address", 80, 16, either},
    {"duration", 96, 4},
    {"duration_usec", 100, 4},
    {"count", 104, 4},
    {"firsttime", 108, 4},
    {"lasttime", 112, 4},
    {"lasttime_usec", 116, 4},
    {"ipv6_dsip", 120, 12, hex},
    {"dsip", 132, 4, ipv4},
    {"data_source_address", 120, 16, source},
    {"sport", 136, 2},
    {"dport", 138, 2},
    {"vlan", 140, 2},
    {"iface_in", 142, 2},
    {"iface_out", 144, 2},
    {"protocol", 146, 1},
    {"dir", 147, 1},
};

constexpr field kFlowV1Fields[] = {
    {"dstbytes", 0, 8},      {"srcbytes", 8, 8},      {"dstpackets", 16, 8},
    {"srcpackets", 24, 8},   {"dstasngeo", 32, 8},    {"srcasngeo", 40, 8},
    {"dst_mac", 48, 6, mac}, {"src_mac", 54, 6, mac}, {"sip", 60, 16, either},
    {"dip", 76, 16, either}, {"duration", 92, 4},     {"duration_usec", 96, 4},
    {"cnt", 100, 4},         {"ftime", 104, 4},       {"ltime", 108, 4},
    {"ltime_usec", 112, 4},  {"sport", 116, 2},       {"dport", 118, 2},
    {"vlan", 120, 2},        {"iface_in", 122, 2},    {"iface_out", 124, 2},
    {"protocol", 126, 1},    {"dir", 127, 1},
};

constexpr field kFlowV2Fields[] = {
    {"session_id", 0, 8},
    {"dstbytes", 8, 8},
    {"srcbytes", 16, 8},
    {"dstpackets", 24, 8},
    {"srcpackets", 32, 8},
    {"dstasngeo", 40, 8},
    {"srcasngeo", 48, 8},
    {"userdatabin", 56, 40, numbers, 5},
    {"dst_mac", 96, 6, mac},
    {"src_mac", 102, 6, mac},
    {"sip6", 108, 16, ipv6},
    {"dip6", 124, 16, ipv6},
    {"sip4", 140, 4, ipv4},
    {"dip4", 144, 4, ipv4},
    {"duration", 148, 4},
    {"duration_usec", 152, 4},
    {"cnt", 156, 4},
    {"ftime", 160, 4},
    {"ltime", 164, 4},
    {"ltime_usec", 168, 4},
    {"sport", 172, 2},
    {"dport", 174, 2},
    {"vlan", 176, 2},
    {"iface_in", 178, 2},
    {"iface_out", 180, 2},
    {"userdataid", 182, 10, numbers, 5},
    {"userdatalen", 192, 5, numbers, 5},
    {"protocol", 197, 1},
    {"dir", 198, 1},
    {"connstate", 199, 1},
    {"tos_src", 200, 1},
    {"tcp_flags", 201, 1},
    {"pad", 202, 2, hex},
};

constexpr field kFlowV3Fields[] = {
    {"session_id", 0, 8},
    {"dstbytes", 8, 8},
    {"srcbytes", 16, 8},
    {"dstpackets", 24, 8},
    {"srcpackets", 32, 8},
    {"dstasngeo", 40, 8},
    {"srcasngeo", 48, 8},
    {"userdatabin", 56, 56, numbers, 7},
    {"dst_mac", 112, 6, mac},
    {"src_mac", 118, 6, mac},
    {"sip6", 124, 16, ipv6},
    {"dip6", 140, 16, ipv6},
    {"sip4", 156, 4, ipv4},
    {"dip4", 160, 4, ipv4},
    {"duration", 164, 4},
    {"duration_usec", 168, 4},
    {"cnt", 172, 4},
    {"ftime", 176, 4},
    {"ltime", 180, 4},
    {"ltime_usec", 184, 4},
    {"sport", 188, 2},
    {"dport", 190, 2},
    {"vlan", 192, 2},
    {"iface_in", 194, 2},
    {"iface_out", 196, 2},
    {"userdataid", 198, 14, numbers, 7},
    {"userdatalen", 212, 7, numbers, 7},
    {"protocol", 219, 1},
    {"dir", 220, 1},
    {"connstate", 221, 1},
    {"tos_src", 222, 1},
    {"tcp_flags", 223, 1},
    {"pad", 224, 8, hex},
};

constexpr field kSyslogLegacyFields[] = {
    {"nadver", 0, 1},         {"nadtype", 1, 1},     {"third_party_type", 2, 2},
    {"ipv4_src", 4, 4, ipv4}, {"message_len", 8, 4},
};
constexpr part kSyslogLegacyParts[] = {{"message", 8, 4}};

constexpr field kSyslogV6Fields[] = {{"data_time", 0, 4}, {"rsrvd", 4, 2}, {"data_len", 6, 2}};
constexpr part kSyslogV6Parts[] = {{"message", 6, 2}};

constexpr field kWindowsLegacyFields[] = {
    {"nadver", 0, 1},         {"nadtype", 1, 1},      {"win_ver", 4, 4, win_ver},
    {"ipv6_sip", 8, 12, hex}, {"sip", 20, 4, ipv4},   {"data_source_address", 8, 16, source},
    {"eventid", 24, 4},       {"eventtype", 28, 2},   {"category", 30, 2},
    {"source_len", 32, 4},    {"create_time", 36, 4}, {"write_time", 40, 4},
    {"host_len", 44, 4},      {"usersid_len", 48, 4}, {"message_len", 52, 4},
    {"strings_len", 56, 4},   {"data_len", 60, 4},
};
constexpr part kWindowsLegacyParts[] = {
    {"source", 32, 4},  {"host", 44, 4},    {"usersid", 48, 4},
    {"message", 52, 4}, {"strings", 56, 4}, {"data", 60, 4, 0, true},
};

constexpr field kWindowsV6Fields[] = {{"data_len", 0, 4}};
constexpr part kWindowsV6Parts[] = {{"text", 0, 4}};

constexpr layout kAlertWhole = {"RUVv5_Alert_t",    wire::kAlert,     128, 0xFFFF, 0, 0, 0, 0, 0,
                                kAlertLegacyFields, kAlertLegacyParts};
// Versions 3 to 5 carry one byte of value 0 between byte 0 and byte 1 of the block.
constexpr layout kAlertSplit = {"RUVv5_Alert_t",    wire::kAlert,     129, 1, 1, 0, 0, 0, 0,
                                kAlertLegacyFields, kAlertLegacyParts};
constexpr layout kFlowLegacy = {"RUVv5_Flow_t",    wire::kFlow, 148, 0xFFFF, 0, 0, 0, 0, 0,
                                kFlowLegacyFields, {}};
constexpr layout kSyslogLegacy = {"RUVv5_Syslog_t",    wire::kSyslog,     12, 0xFFFF, 0, 0, 0, 0, 0,
                                  kSyslogLegacyFields, kSyslogLegacyParts};
// Bytes 2 and 3 of the block are never sent.
constexpr layout kWindowsLegacy = {"RUVv5_WinEvntLog_t", wire::kWindows,     62, 4, -2, 0, 0, 0, 0,
                                   kWindowsLegacyFields, kWindowsLegacyParts};
constexpr layout kAlertV6[3] = {
    {"RUVv6_Alert_v1_t", wire::kAlert, 100, 0xFFFF, 0, 0, 0, 0, 0, kAlertV1Fields, kAlertV1Parts},
    {"RUVv6_Alert_v2_t", wire::kAlert, 216, 0xFFFF, 0, 10, 8, 174, 194, kAlertV2Fields,
     kAlertV2Parts},
    {"RUVv6_Alert_v3_t", wire::kAlert, 224, 0xFFFF, 0, 10, 16, 182, 202, kAlertV3Fields,
     kAlertV3Parts}};
constexpr layout kFlowV6[3] = {
    {"RUVv6_Flow_v1_t", wire::kFlow, 128, 0xFFFF, 0, 0, 0, 0, 0, kFlowV1Fields, {}},
    {"RUVv6_Flow_v2_t", wire::kFlow, 204, 0xFFFF, 0, 5, 56, 182, 192, kFlowV2Fields, {}},
    {"RUVv6_Flow_v3_t", wire::kFlow, 232, 0xFFFF, 0, 7, 56, 198, 212, kFlowV3Fields, {}}};
constexpr layout kSyslogV6 = {"RUVv6_Syslog_v1_t", wire::kSyslog, 8, 0xFFFF, 0, 0, 0, 0, 0,
                              kSyslogV6Fields,     kSyslogV6Parts};
constexpr layout kWindowsV6 = {"RUVv6_WinEventLog_v1_t", wire::kWindows, 4, 0xFFFF, 0, 0, 0, 0, 0,
                               kWindowsV6Fields,         kWindowsV6Parts};

}  // namespace

const layout *body_of_v6(unsigned type, unsigned subversion) {
    switch (type) {
        case wire::kAlert:
            return subversion < 3 ? &kAlertV6[subversion] : nullptr;
        case wire::kFlow:
            return subversion < 3 ? &kFlowV6[subversion] : nullptr;
        case wire::kSyslog:
            return &kSyslogV6;
        case wire::kWindows:
            return &kWindowsV6;
        default:
            return nullptr;
    }
}

const layout *body_of_legacy(unsigned version, unsigned mark) {
    if (version < 1 || version > 5) return nullptr;
    // The second byte of the two oldest Alert forms is the severity, and no other type has them.
    if (version < 3) return &kAlertWhole;
    switch (mark) {
        case wire::kLegacyAlert:
            return &kAlertSplit;
        case wire::kLegacyWindows:
            return &kWindowsLegacy;
        case wire::kLegacyFlow:
            return &kFlowLegacy;
        case wire::kLegacySyslog:
            return &kSyslogLegacy;
        default:
            return nullptr;
    }
}

uint64_t variable_size(const layout &body, const uint8_t *block, unsigned version) {
    uint64_t total = 0;
    for (const part &p : body.parts) {
        if (version < p.since) continue;
        total += wire::read_uint(block + body.at(p.length_offset), p.length_width);
    }
    for (unsigned row = 0; row < body.rows; row++) total += block[body.row_lengths + row];
    return total;
}

}  // namespace receiver
