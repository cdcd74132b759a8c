/**
 * The RUV wire as a Receiver sees it: the constants of the stream, written down from the
 * description of the wire and not from the library's encoder, so that the two prove each other.
 *
 * All multi-byte integers travel in little-endian order. The readers below take unaligned
 * addresses and never look beyond their width.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace wire {

/** The eight bytes ahead of every unit. */
inline constexpr uint8_t kMagic[8] = {0x55, 0xAA, 0x55, 0xAA, 0xCE, 0xFA, 0xED, 0xFE};
inline constexpr size_t kMagicSize = 8;
inline constexpr size_t kHeaderSize = 8;
inline constexpr size_t kResultSize = 8;
inline constexpr size_t kVersionEntrySize = 32;
inline constexpr size_t kReceiverVersionSize = 16;
inline constexpr size_t kChannelRequestSize = 4;

/** A result word: success, and the refusal that a Receiver sends. */
inline constexpr uint8_t kOkay[8] = {'O', 'K', 'A', 'Y', 0, 0, 0, 0};
inline constexpr uint8_t kNotOkay[8] = {'N', 'O', 'T', 'O', 'K', 'A', 'Y', 0};

/** Data types: the twelve bits in the middle of the header word. */
enum data_type : uint32_t { kRequest = 0, kAlert = 1, kFlow = 2, kSyslog = 3, kWindows = 4 };

/** Request codes: the data version of a unit of data type 0. */
enum request_code : uint32_t {
    kNop = 0,
    kReqSsl = 1,
    kReqDataVers = 2,
    kGetChanId = 3,
    kAmKnown = 4,
    kCloseConn = 5,
    kGetRcvrVer = 6,
    kGetCustomFieldFile = 7,
    kAmKnown2 = 8,
    kRequestCount = 9
};

/** Names of the request codes, indexed by code. */
inline constexpr const char *kRequestNames[kRequestCount] = {
    "NOP",       "ReqSSL",     "ReqDataVers",        "GetChanID", "AmKnown",
    "CloseConn", "GetRcvrVer", "GetCustomFieldFile", "AmKnown2"};

/** Names of the data types, indexed by data type. */
inline constexpr const char *kTypeNames[5] = {"Request/Information", "Alert", "Flow", "Syslog",
                                              "Windows Events"};

/** Second byte of the legacy bodies, which carry no header and name their type there. */
enum legacy_type : uint8_t {
    kLegacyAlert = 0,
    kLegacyWindows = 1,
    kLegacyFlow = 4,
    kLegacySyslog = 5
};

inline uint16_t read16(const uint8_t *p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

inline uint32_t read32(const uint8_t *p) {
    return static_cast<uint32_t>(read16(p)) | static_cast<uint32_t>(read16(p + 2)) << 16;
}

inline uint64_t read64(const uint8_t *p) {
    return static_cast<uint64_t>(read32(p)) | static_cast<uint64_t>(read32(p + 4)) << 32;
}

/** Reads an unsigned integer of 1, 2, 4 or 8 bytes. */
inline uint64_t read_uint(const uint8_t *p, unsigned width) {
    return width == 1 ? *p : width == 2 ? read16(p) : width == 4 ? read32(p) : read64(p);
}

/** Writes an integer of `width` bytes, lowest byte first. */
inline void write_uint(uint8_t *p, uint64_t value, unsigned width) {
    for (unsigned i = 0; i < width; i++) p[i] = static_cast<uint8_t>(value >> (8 * i));
}

}  // namespace wire
