#pragma once
/// Every record body that the wire knows: one form per layout.
///
/// A body is a fixed block followed by variable parts. A form names the block's size, the function
/// that fills it, the slices of it that travel, and the variable parts in wire order. Integers
/// travel as they lie in memory (little-endian); a variable part travels only when its length is
/// not zero, without a terminating zero. All of this is pure: no descriptor, no allocation.
///
/// The blocks themselves are in bodies_alert.h, bodies_flow.h, bodies_syslog.h, bodies_windows.h.
#include <cstdint>
#include <span>

#include "ruv/conn.h"
#include "ruv/record.h"

inline constexpr int kBlockBytes = 232;  ///< the largest block, Flow version 6 sub-version 3

/// A variable part. Text pieces (from kAddressText on) exist in the Windows event text only.
enum class body_part : uint8_t {
    kRow0,
    kRow1,
    kRow2,
    kRow3,
    kRow4,
    kRow5,
    kRow6,     ///< string of that custom-field row
    kRows,     ///< strings of the rows 0 to body_form::rows - 1, in order
    kMessage,  ///< msg with the 8-bit msg_len (Alert)
    kText,     ///< msg with the 16-bit pkt_len (Syslog, Windows event)
    kPacket,   ///< pkt with pkt_len
    kStrings,  ///< every insertion string, nothing between them
    kAddressText,
    kSeparator,
    kRecordNumber,
    kNumbers,
    kCount,
    kFramedStrings  // every insertion string, each followed by a separator
};

/// A run of bytes of the block; `offset` kZeroByte stands for one zero byte that is no part of it.
struct body_slice {
    uint8_t offset, size;
};
inline constexpr uint8_t kZeroByte = 0xFF;

struct body_form {
    uint32_t type;
    int first_ver, last_ver;    ///< record versions that use this form
    int first_sver, last_sver;  ///< zero-based sub-versions; all of them for versions 1 to 5
    size_t size;                ///< bytes of the block
    int rows;                   ///< custom-field rows that the block carries
    void (*fill)(const RUVData_t &record, const RUVDSInfo *dsinfo, void *block);
    std::span<const body_slice> slices;  ///< what travels of the block; empty: all of it
    std::span<const body_part> parts;    ///< what follows it, in wire order
};

/// The form of a record, or null when its type has none for that version and sub-version.
const body_form *libruv_find_body(uint32_t type, int ver, int sver);
