#pragma once
/// Blocks of Syslog records, byte for byte as they lie on the wire.
#include <cstdint>

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
