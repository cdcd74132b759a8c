#include "ruv/record_print_lines.h"

#include <cstddef>

#include "ruv/bodies_alert.h"
#include "ruv/bodies_flow.h"
#include "ruv/record.h"

namespace {

// Rows for a field of BLOCK, for an address whose IPv4 form has a field of its own, and for an
// address that has one field of 16 bytes.
#define LINE(label, field) \
    { label, offsetof(BLOCK, field), sizeof(BLOCK::field), 0 }
#define ADDRESS(label, head, last) \
    { label, offsetof(BLOCK, head), 16, offsetof(BLOCK, last) }
#define ADDRESS16(label, field) \
    { label, offsetof(BLOCK, field), 16, offsetof(BLOCK, field) + 12 }

// The legacy dump shows the lines of version 6, from where its own block has the fields.
#define BLOCK RUVv5_Alert_t
constexpr field_line kAlert5[] = {
    LINE("Session ID", session_id),
    LINE("Dst Mac", dst_mac),
    LINE("Src Mac", src_mac),
    LINE("SigID", sig_id),
    LINE("Norm SigID", norm_sigid),
    LINE("Event Count", eventcount),
    ADDRESS("SIP", ipv6_sip, sip),
    ADDRESS("DIP", ipv6_dip, dip),
    LINE("First Time", firsttime),
    LINE("Last Time", lasttime),
    LINE("Last Time Usec", lasttime_usec),
    LINE("Src Port", src_port),
    LINE("Dst Port", dst_port),
    LINE("VLAN", vlan),
    LINE("Sequence", sequence),
    LINE("Packet Len", packet_len),
    LINE("Protocol", protocol),
    LINE("Flow", flow),
    LINE("Action", action),
    LINE("Severity", severity),
    LINE("Trusted", trusted),
    LINE("SigGen", sig_generator),
    LINE("Message Len", message_len),
    LINE("Src User Len", src_usrname_len),
    LINE("Dst User Len", dst_usrname_len),
    LINE("Application Len", appname_len),
    LINE("Host Name Len", hostname_len),
    LINE("Domain Name Len", domainname_len),
    LINE("Command Len", commandname_len),
    LINE("Object Len", objectname_len),
};
#undef BLOCK

#define BLOCK RUVv6_Alert_v1_t
constexpr field_line kAlert61[] = {
    LINE("Session ID", session_id),
    LINE("Dst Mac", dst_mac),
    LINE("Src Mac", src_mac),
    LINE("SigID", sigid),
    LINE("Norm SigID", norm_sigid),
    LINE("Event Count", evntcnt),
    ADDRESS16("SIP", sip),
    ADDRESS16("DIP", dip),
    LINE("First Time", ftime),
    LINE("Last Time", ltime),
    LINE("Last Time Usec", ltime_usec),
    LINE("Src Port", sport),
    LINE("Dst Port", dport),
    LINE("VLAN", vlan),
    LINE("Sequence", sequence),
    LINE("Packet Len", packet_len),
    LINE("Protocol", protocol),
    LINE("Flow", flow),
    LINE("Action", action),
    LINE("Severity", severity),
    LINE("Trusted", trusted),
    LINE("SigGen", sig_generator),
    LINE("Message Len", message_len),
    LINE("Src User Len", src_usrname_len),
    LINE("Dst User Len", dst_usrname_len),
    LINE("Application Len", appname_len),
    LINE("Host Name Len", hostname_len),
    LINE("Domain Name Len", domainname_len),
    LINE("Command Len", commandname_len),
    LINE("Object Len", objectname_len),
};
#undef BLOCK

#define BLOCK RUVv6_Alert_v2_t
constexpr field_line kAlert62[] = {
    LINE("Session ID", session_id),
    LINE("Dst Mac", dst_mac),
    LINE("Src Mac", src_mac),
    LINE("SigID", sigid),
    LINE("Norm SigID", norm_sigid),
    LINE("Event Count", evntcnt),
    ADDRESS("SIP", sip6, sip4),
    ADDRESS("DIP", dip6, dip4),
    LINE("First Time", ftime),
    LINE("Last Time", ltime),
    LINE("Last Time Usec", ltime_usec),
    LINE("Src Port", sport),
    LINE("Dst Port", dport),
    LINE("VLAN", vlan),
    LINE("Sequence", sequence),
    LINE("Packet Len", packet_len),
    LINE("Protocol", protocol),
    LINE("Flow", flow),
    LINE("Action", action),
    LINE("Severity", severity),
    LINE("Trusted", trusted),
    LINE("SigGen", sig_generator),
    LINE("Message Len", message_len),
};
#undef BLOCK

#define BLOCK RUVv6_Alert_v3_t
constexpr field_line kAlert63[] = {
    LINE("Flow ID", flow_id),
};
#undef BLOCK

#define BLOCK RUVv5_Flow_t
constexpr field_line kFlow5[] = {
    LINE("Dest Bytes", destbytes),
    LINE("Source Bytes", sourcebytes),
    LINE("Dest Packets", destpackets),
    LINE("Source Packets", sourcepackets),
    LINE("Dest ASN/GEO", destasngeo),
    LINE("Sourc ASN/GEO", sourceasngeo),
    LINE("Dst Mac", dst_mac),
    LINE("Src Mac", src_mac),
    ADDRESS("SIP", ipv6_sip, sip),
    ADDRESS("DIP", ipv6_dip, dip),
    LINE("Duration Time", duration),
    LINE("Duration Time Usec", duration_usec),
    LINE("Flow Count", count),
    LINE("First Time", firsttime),
    LINE("Last Time", lasttime),
    LINE("Last Time Usec", lasttime_usec),
    LINE("Src Port", sport),
    LINE("Dst Port", dport),
    LINE("VLAN", vlan),
    LINE("Iface In", iface_in),
    LINE("Iface Out", iface_out),
    LINE("Protocol", protocol),
    LINE("Dir", dir),
};
#undef BLOCK

// Kept: "Sourc ASN/GEO" is how readers of these dumps know the line.
#define BLOCK RUVv6_Flow_v1_t
constexpr field_line kFlow61[] = {
    LINE("Dest Bytes", dstbytes),
    LINE("Source Bytes", srcbytes),
    LINE("Dest Packets", dstpackets),
    LINE("Source Packets", srcpackets),
    LINE("Dest ASN/GEO", dstasngeo),
    LINE("Sourc ASN/GEO", srcasngeo),
    LINE("Dst Mac", dst_mac),
    LINE("Src Mac", src_mac),
    ADDRESS16("SIP", sip),
    ADDRESS16("DIP", dip),
    LINE("Duration Time", duration),
    LINE("Duration Time Usec", duration_usec),
    LINE("Flow Count", cnt),
    LINE("First Time", ftime),
    LINE("Last Time", ltime),
    LINE("Last Time Usec", ltime_usec),
    LINE("Src Port", sport),
    LINE("Dst Port", dport),
    LINE("VLAN", vlan),
    LINE("Iface In", iface_in),
    LINE("Iface Out", iface_out),
    LINE("Protocol", protocol),
    LINE("Dir", dir),
};
#undef BLOCK

#define BLOCK RUVv6_Flow_v3_t
constexpr field_line kFlow63[] = {
    LINE("Session ID", session_id),
    LINE("Dest Bytes", dstbytes),
    LINE("Source Bytes", srcbytes),
    LINE("Dest Packets", dstpackets),
    LINE("Source Packets", srcpackets),
    LINE("Dest ASN/GEO", dstasngeo),
    LINE("Sourc ASN/GEO", srcasngeo),
    LINE("Dst Mac", dst_mac),
    LINE("Src Mac", src_mac),
    ADDRESS("SIP", sip6, sip4),
    ADDRESS("DIP", dip6, dip4),
    LINE("Duration Time", duration),
    LINE("Duration Time Usec", duration_usec),
    LINE("Flow Count", cnt),
    LINE("First Time", ftime),
    LINE("Last Time", ltime),
    LINE("Last Time Usec", ltime_usec),
    LINE("Src Port", sport),
    LINE("Dst Port", dport),
    LINE("VLAN", vlan),
    LINE("Iface In", iface_in),
    LINE("Iface Out", iface_out),
    LINE("Protocol", protocol),
    LINE("Dir", dir),
    LINE("Conn State", connstate),
    LINE("Tos Src", tos_src),
    LINE("TCP Flags", tcp_flags),
};
#undef BLOCK

constexpr text_line kTexts5[] = {
    {"Src User", kAlertSrcUser, offsetof(RUVv5_Alert_t, src_usrname_len)},
    {"Dst User", kAlertDstUser, offsetof(RUVv5_Alert_t, dst_usrname_len)},
    {"Application", kAlertApplication, offsetof(RUVv5_Alert_t, appname_len)},
    {"Host Name", kAlertHostname, offsetof(RUVv5_Alert_t, hostname_len)},
    {"Domain Name", kAlertDomain, offsetof(RUVv5_Alert_t, domainname_len)},
    {"Command", kAlertCommand, offsetof(RUVv5_Alert_t, commandname_len)},
    {"Object", kAlertObject, offsetof(RUVv5_Alert_t, objectname_len)},
};

constexpr text_line kTexts61[] = {
    {"Src User", kAlertSrcUser, offsetof(RUVv6_Alert_v1_t, src_usrname_len)},
    {"Dst User", kAlertDstUser, offsetof(RUVv6_Alert_v1_t, dst_usrname_len)},
    {"Application", kAlertApplication, offsetof(RUVv6_Alert_v1_t, appname_len)},
    {"Host Name", kAlertHostname, offsetof(RUVv6_Alert_v1_t, hostname_len)},
    {"Domain Name", kAlertDomain, offsetof(RUVv6_Alert_v1_t, domainname_len)},
    {"Command", kAlertCommand, offsetof(RUVv6_Alert_v1_t, commandname_len)},
    {"Object", kAlertObject, offsetof(RUVv6_Alert_v1_t, objectname_len)},
};

}  // namespace

const std::span<const field_line> kAlertV5Lines = kAlert5, kAlertV6V1Lines = kAlert61,
                                  kAlertV6V2Lines = kAlert62, kAlertV6V3Lines = kAlert63;
const std::span<const field_line> kFlowV5Lines = kFlow5, kFlowV6V1Lines = kFlow61,
                                  kFlowV6V3Lines = kFlow63;
const std::span<const text_line> kAlertV5Texts = kTexts5, kAlertV6V1Texts = kTexts61;
