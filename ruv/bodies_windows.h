#pragma once
/// Blocks of Windows event log records, byte for byte as they lie on the wire.
#include <cstdint>

struct RUVData_t;
struct RUVDSInfo;

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

/// Fill functions; `block` holds zeros and has the size of the structure.
void libruv_fill_winevntv5(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
void libruv_fill_winevntv6(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);

/// Texts of the version-6 body that exist nowhere else; the sizes hold the largest values.
struct win_texts {
    char address[46];
    char record_number[15];
    char numbers[32];
    char count[7];
};

/// Fills `texts` from `record`. The address is that of an IPv4 source, or `local_address` (null
/// reads as empty) for a host id or no source; any other source is shown by its first four bytes.
void libruv_fill_win_texts(const RUVData_t &record, const RUVDSInfo *dsinfo,
                           const char *local_address, win_texts *texts);
