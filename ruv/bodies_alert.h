#pragma once
/// Blocks of Alert records, byte for byte as they lie on the wire.
#include <cstdint>

struct RUVData_t;
struct RUVDSInfo;

#pragma pack(push, 1)

struct RUVv5_Alert_t {
    uint8_t nadver;
    uint8_t severity;
    uint8_t action;
    uint8_t protocol;
    uint8_t dst_mac[6];
    uint8_t src_mac[6];
    uint8_t flow;
    uint8_t message_len;
    uint16_t vlan;
    uint16_t src_port;
    uint16_t dst_port;
    uint8_t ipv6_sip[12];
    uint32_t sip;
    uint8_t ipv6_dip[12];
    uint32_t dip;
    uint32_t sig_id;
    uint32_t firsttime;
    uint32_t lasttime;
    uint32_t lasttime_usec;
    uint32_t eventcount;
    uint16_t packet_len;
    uint8_t src_usrname_len;  ///< from version 2 on, as the four below
    uint8_t dst_usrname_len;
    uint8_t appname_len;
    uint8_t hostname_len;
    uint8_t domainname_len;
    uint8_t rsrvd_chara;
    uint8_t ipv6_dsip[12];  ///< from version 3 on
    uint32_t dsip;
    uint64_t rsvd64;
    uint64_t session_id;  ///< from version 4 on, as all below
    uint32_t norm_sigid;
    uint16_t sequence;
    uint8_t trusted;
    uint8_t sig_generator;
    uint8_t commandname_len;
    uint8_t objectname_len;
    uint16_t rsrvd_charb;
};

struct RUVv6_Alert_v1_t {
    uint64_t session_id;
    uint8_t src_mac[6];
    uint8_t dst_mac[6];
    uint32_t sigid, norm_sigid, evntcnt;
    uint8_t sip[16];
    uint8_t dip[16];
    uint32_t ftime, ltime, ltime_usec;
    uint16_t sport, dport, vlan, sequence, packet_len;
    uint8_t protocol, flow, action, severity, trusted, sig_generator;
    uint8_t message_len, src_usrname_len, dst_usrname_len, appname_len, hostname_len;
    uint8_t domainname_len, commandname_len, objectname_len;
};

struct RUVv6_Alert_v2_t {
    uint64_t session_id;
    uint64_t userdatabin[10];
    uint8_t src_mac[6];
    uint8_t dst_mac[6];
    uint32_t sigid, norm_sigid, evntcnt;
    uint8_t sip6[16];
    uint8_t dip6[16];
    uint32_t sip4, dip4;
    uint32_t ftime, ltime, ltime_usec;
    uint16_t sport, dport, vlan, sequence, packet_len;
    uint16_t userdataid[10];
    uint8_t userdatalen[10];
    uint8_t protocol, flow, action, severity, trusted, sig_generator, message_len;
    uint8_t pad[5];
};

/// Sub-version 3 is sub-version 2 behind a flow id.
struct RUVv6_Alert_v3_t {
    uint64_t flow_id;
    RUVv6_Alert_v2_t v2;
};

#pragma pack(pop)

/// Fill functions; `block` holds zeros and has the size of the structure.
void libruv_fill_alertv5(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
void libruv_fill_alertv6v1(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
void libruv_fill_alertv6v2(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
void libruv_fill_alertv6v3(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
