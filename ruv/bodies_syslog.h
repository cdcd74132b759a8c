#pragma once
/// Blocks of Syslog records, byte for byte as they lie on the wire.
#include <cstdint>

struct RUVData_t;
struct RUVDSInfo;

struct RUVv5_Syslog_t {
    uint8_t nadver;
    uint8_t nadtype;
    uint16_t third_party_type;
    uint32_t ipv4_src;
    uint32_t message_len;
};

struct RUVv6_Syslog_v1_t {
    uint32_t data_time;
    uint16_t rsrvd;
    uint16_t data_len;
};

/// Fill functions; `block` holds zeros and has the size of the structure.
void libruv_fill_syslogv5(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
void libruv_fill_syslogv6(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
