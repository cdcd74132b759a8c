#pragma once
/// Blocks of Windows event log records, byte for byte as they lie on the wire.
#include <cstdint>

struct RUVv5_WinEvntLog_t {
    uint8_t nadver;
    uint8_t nadtype;
    uint16_t unfilled_pad;  ///< never travels
    uint32_t win_ver;       ///< minor version in bits 8 to 11, major version in bits 0 to 7
    uint8_t ipv6_sip[12];   ///< address of the data source
    uint32_t sip;
    uint32_t eventid;
    uint16_t eventtype;
    uint16_t category;
    uint32_t source_len;
    uint32_t create_time;
    uint32_t write_time;
    uint32_t host_len;
    uint32_t usersid_len;
    uint32_t message_len;
    uint32_t strings_len;
    uint32_t data_len;
};

/// The block of version 6 only says how many bytes of text follow it.
struct RUVv6_WinEventLog_v1_t {
    uint32_t data_len;
};
