#pragma once
/// The data record: one flat structure that can hold every field of every data type.
///
/// A record is filled by the setters and read by the encoder and the printers. It owns no memory
/// besides itself: every pointer in it is the caller's and must stay valid and unchanged until the
/// record has been sent or reset. A record is used by one thread at a time; nothing here locks.
///
/// The public calls RUVAllocData, RUVResetData and RUVFreeData are implemented here as well.
#include <cstdint>

#include "ruv/wire.h"

inline constexpr int kCustomRows = 10;        ///< custom-field slots of a record
inline constexpr int kInsertionStrings = 33;  ///< 32 by name, one more by the setter's test

/// Rows of `cfdata` in which Alert and Windows event records keep their strings.
enum alert_row {
    kAlertApplication,
    kAlertCommand,
    kAlertDomain,
    kAlertHostname,
    kAlertObject,
    kAlertDstUser,
    kAlertSrcUser
};
enum win_row { kWinLogFile, kWinSourceName, kWinHostname, kWinUser, kWinCategory };

/// Custom-field rows as four parallel arrays. A row with id 0 is free.
struct RUVCustomRows {
    uint64_t bin[kCustomRows];         ///< binary values, packed from the most significant end
    const uint8_t *data[kCustomRows];  ///< string value, the caller's memory
    uint16_t id[kCustomRows];          ///< custom-field id that owns the row
    uint8_t len[kCustomRows];          ///< string length
};

/// Field values of all data types. IPv4 addresses are in host byte order, IPv6 addresses are the
/// 16 bytes that the caller gave.
struct RUVDataValues {
    uint64_t session_id;
    uint64_t flow_id;  // Kept: no setter writes it, the sub-version 3 Alert body sends its zero.
    uint64_t dstbytes, srcbytes, dstpackets, srcpackets;
    uint64_t dstasngeo, srcasngeo;
    const char *istrings[kInsertionStrings];
    const char *msg;
    const uint8_t *pkt;
    uint8_t dst_mac[6], src_mac[6];
    uint32_t istringslen[kInsertionStrings];
    uint32_t sip6[4], dip6[4];
    uint32_t sip4, dip4;
    uint32_t duration, duration_usec, cnt;  ///< cnt is the Flow count and the Alert event count
    uint32_t colltime;
    uint32_t ftime, ltime, ltime_usec;
    uint32_t sigid, norm_sigid;
    uint32_t create_time;
    uint32_t rec_num;
    int32_t num_istrings;
    uint16_t sport, dport, vlan, iface_in, iface_out, sequence, eventid;
    uint16_t pkt_len;  ///< Alert packet; Syslog and Windows event message
    uint8_t protocol, dir, connstate, tos_src, tcp_flags, flow, action, severity, trusted, sig_gen;
    uint8_t win_ver;  ///< major * 10 + minor
    uint8_t eventtype;
    uint8_t msg_len;  ///< Alert message
};

struct RUVData_t {
    struct {
        int32_t ver;    ///< version of the data type, 1 to 6
        int32_t sver;   ///< sub-version minus one
        int32_t tpt;    ///< third-party type of the version-6 header
        uint32_t type;  ///< kAlert to kWinEvent
    } ctl;              ///< set by RUVAllocData, untouched by a reset
    struct {
        uint64_t ok_to_send;  ///< one bit per field that a setter has written
        RUVDataValues data;
        RUVCustomRows cfdata;
    } data;  ///< cleared as a whole by a reset
};

/// Clears the `data` part of `record` (not null) to zero and leaves `ctl` alone.
void libruv_reset_data(RUVData_t *record);
