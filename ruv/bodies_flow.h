#pragma once
/// Blocks of Flow records, byte for byte as they lie on the wire.
#include <cstdint>

struct RUVData_t;
struct RUVDSInfo;

#pragma pack(push, 1)

struct RUVv5_Flow_t {
    uint8_t nadver;
    uint8_t nadtype;
    uint16_t pad;
    uint64_t destbytes, sourcebytes, destpackets, sourcepackets, destasngeo, sourceasngeo;
    uint8_t dst_mac[6];
    uint8_t src_mac[6];
    uint8_t ipv6_sip[12];
    uint32_t sip;
    uint8_t ipv6_dip[12];
    uint32_t dip;
    uint32_t duration, duration_usec, count, firsttime, lasttime, lasttime_usec;
    uint8_t ipv6_dsip[12];
    uint32_t dsip;
    uint16_t sport, dport, vlan, iface_in, iface_out;
    uint8_t protocol, dir;
};

struct RUVv6_Flow_v1_t {
    uint64_t dstbytes, srcbytes, dstpackets, srcpackets, dstasngeo, srcasngeo;
    uint8_t dst_mac[6];
    uint8_t src_mac[6];
    uint8_t sip[16];
    uint8_t dip[16];
    uint32_t duration, duration_usec, cnt, ftime, ltime, ltime_usec;
    uint16_t sport, dport, vlan, iface_in, iface_out;
    uint8_t protocol, dir;
};

/// Sub-versions 2 and 3 differ in the number of custom-field rows and in the padding.
template <int Rows, int Pad>
struct flow_with_rows {
    uint64_t session_id;
    uint64_t dstbytes, srcbytes, dstpackets, srcpackets, dstasngeo, srcasngeo;
    uint64_t userdatabin[Rows];
    uint8_t dst_mac[6];
    uint8_t src_mac[6];
    uint8_t sip6[16];
    uint8_t dip6[16];
    uint32_t sip4, dip4;
    uint32_t duration, duration_usec, cnt, ftime, ltime, ltime_usec;
    uint16_t sport, dport, vlan, iface_in, iface_out;
    uint16_t userdataid[Rows];
    uint8_t userdatalen[Rows];
    uint8_t protocol, dir, connstate, tos_src, tcp_flags;
    uint8_t pad[Pad];
};
using RUVv6_Flow_v2_t = flow_with_rows<5, 2>;
using RUVv6_Flow_v3_t = flow_with_rows<7, 8>;  ///< six bytes of padding and two trailing ones

#pragma pack(pop)

/// Fill functions; `block` holds zeros and has the size of the structure.
void libruv_fill_flowv5(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
void libruv_fill_flowv6v1(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
void libruv_fill_flowv6v2(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
void libruv_fill_flowv6v3(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
