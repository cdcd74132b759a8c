#pragma once
/// What travels between this library and a Receiver outside of record bodies: the stream magic,
/// the version-6 header, the request/information messages and their answers.
///
/// Every integer is sent in native little-endian order; nothing is swapped anywhere, so a
/// structure below is the wire image itself. Constants and layouts only: no function, no state.
/// The record bodies stand in bodies.h.
#include <cstddef>
#include <cstdint>

#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the wire images below are little-endian; a big-endian host needs its own conversions"
#endif

/// Sent ahead of every header; read as bytes: 55 AA 55 AA CE FA ED FE. Not `inline`: the unique
/// symbol of an inline constant could not be made local in the static archive.
constexpr uint64_t magic = 0xFEEDFACEAA55AA55ull;

/// Data types: the row index of RUVConn::data_versions, and a header's `ruv_data_type`.
enum ruv_data_type : int { kRequest = 0, kAlert = 1, kFlow = 2, kSyslog = 3, kWinEvent = 4 };

inline constexpr int kDataTypes = 5;         ///< rows of the supported-versions table
inline constexpr int kProtocolVersions = 6;  ///< its columns: protocol version minus 1

/// Request codes: a header's `ruv_data_ver` when its data type is 0, and the bit of the code in
/// the mask of requests that a Receiver understands.
enum ruv_request : int {
    kNop = 0,
    kReqSSL = 1,
    kReqDataVers = 2,
    kGetChanID = 3,
    kAmKnown = 4,
    kCloseConn = 5,
    kGetRcvrVer = 6,
    kGetCustomFieldFile = 7,
    kAmKnown2 = 8,
};

/// The header word: bits 0-7 protocol version (always 6), 8-19 data type, 20-31 data version.
struct RUVv6_Header_t {
    uint32_t word;
    uint16_t third_party_type;
    uint16_t dsidchanid;  ///< channel id of the data source, 0 when there is none
};
static_assert(sizeof(RUVv6_Header_t) == 8);
static_assert(offsetof(RUVv6_Header_t, third_party_type) == 4);
static_assert(offsetof(RUVv6_Header_t, dsidchanid) == 6);

/// Every answer begins with 8 bytes; only these mean success, and all 8 are compared.
constexpr char kResultOkay[8] = {'O', 'K', 'A', 'Y', 0, 0, 0, 0};

/// Body head of GetChanID; `data_len` bytes of data follow.
struct RUV_ReqInfo_GetChanID_t {
    uint16_t type;  ///< kind of data source: 1 IPv4, 2 IPv6, 3 HostID
    uint16_t data_len;
};
static_assert(sizeof(RUV_ReqInfo_GetChanID_t) == 4);
static_assert(offsetof(RUV_ReqInfo_GetChanID_t, data_len) == 2);

/// One entry of the answer to ReqDataVers.
struct RUV_Rsp_VerInfo_t {
    uint16_t ruv_ver;       ///< protocol version that the entry belongs to, 1 to 6
    uint16_t ruv_type;      ///< data type, 0 to 4
    uint16_t ruv_type_ver;  ///< version of that type; for type 0 the request code
    uint16_t rsrvda;
    uint32_t rsrvdb[6];
};
static_assert(sizeof(RUV_Rsp_VerInfo_t) == 32);
static_assert(offsetof(RUV_Rsp_VerInfo_t, ruv_type) == 2);
static_assert(offsetof(RUV_Rsp_VerInfo_t, ruv_type_ver) == 4);
static_assert(offsetof(RUV_Rsp_VerInfo_t, rsrvda) == 6);
static_assert(offsetof(RUV_Rsp_VerInfo_t, rsrvdb) == 8);

/// The answer to GetRcvrVer.
struct RUV_Rsp_RcvrVerInfo_t {
    uint16_t major;
    uint16_t minor;
    uint16_t dot;
    char patch[2];  ///< two characters without a terminator
    uint64_t buildstamp;
};
static_assert(sizeof(RUV_Rsp_RcvrVerInfo_t) == 16);
static_assert(offsetof(RUV_Rsp_RcvrVerInfo_t, minor) == 2);
static_assert(offsetof(RUV_Rsp_RcvrVerInfo_t, dot) == 4);
static_assert(offsetof(RUV_Rsp_RcvrVerInfo_t, patch) == 6);
static_assert(offsetof(RUV_Rsp_RcvrVerInfo_t, buildstamp) == 8);
