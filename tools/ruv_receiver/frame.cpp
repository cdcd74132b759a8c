#include "tools/ruv_receiver/frame.h"

#include <algorithm>
#include <cstring>

#include "tools/common/wire_layout.h"

namespace receiver {
namespace {

constexpr size_t kLegacyHead = 2;   /**< bytes of a legacy body that tell its kind */
constexpr size_t kDataTypeSize = 4; /**< bytes that follow an AmKnown2 request */

/** Finds how many of the bytes belong to no unit; a beginning of a magic at the end is kept. */
size_t garbage_length(const uint8_t *bytes, size_t have) {
    const uint8_t *const end = bytes + have;
    for (const uint8_t *at = bytes; at < end; at++) {
        // Looks no further than it has to: the sanitizers' memmem() counts all of its range as
        // read.
        at = static_cast<const uint8_t *>(
            memchr(at, wire::kMagic[0], static_cast<size_t>(end - at)));
        if (at == nullptr) break;
        size_t left = std::min(wire::kMagicSize, static_cast<size_t>(end - at));
        if (memcmp(at, wire::kMagic, left) == 0) return static_cast<size_t>(at - bytes);
    }
    return have;
}

void need(unit &u, uint64_t size) {
    u.kind = unit_kind::incomplete;
    u.size = size;
}

/** A magic that no unit follows: skipping its first byte lets the search go on behind it. */
void reject(unit &u, const uint8_t *bytes, size_t have) {
    u.kind = unit_kind::garbage;
    u.size = 1 + garbage_length(bytes + 1, have - 1);
}

void measure_body(unit &u, const uint8_t *bytes, size_t have) {
    uint64_t fixed = u.body_offset + u.body->size;
    if (have < fixed) return need(u, fixed);
    u.size = fixed + variable_size(*u.body, bytes + u.body_offset, u.version);
    if (have < u.size) u.kind = unit_kind::incomplete;
}

void measure_request(unit &u, const uint8_t *bytes, size_t have) {
    u.kind = unit_kind::request;
    u.size = u.body_offset;
    if (u.subversion == wire::kGetChanId) {
        uint64_t head = u.size + wire::kChannelRequestSize;
        if (have < head) return need(u, head);
        u.size = head + wire::read16(bytes + u.body_offset + 2);
    } else if (u.subversion == wire::kAmKnown2) {
        u.size += kDataTypeSize;
    }
    if (have < u.size) u.kind = unit_kind::incomplete;
}

void measure_v6(unit &u, const uint8_t *bytes, size_t have) {
    u.body_offset = wire::kMagicSize + wire::kHeaderSize;
    if (have < u.body_offset) return need(u, u.body_offset);
    uint32_t word = wire::read32(bytes + wire::kMagicSize);
    u.type = word >> 8 & 0xFFF;
    u.subversion = static_cast<uint16_t>(word >> 20);
    u.third_party = wire::read16(bytes + wire::kMagicSize + 4);
    u.channel = wire::read16(bytes + wire::kMagicSize + 6);
    if (u.type == wire::kRequest) return measure_request(u, bytes, have);
    if (u.type > wire::kWindows) return reject(u, bytes, have);
    u.kind = unit_kind::record;
    u.size = u.body_offset;
    u.body = body_of_v6(u.type, u.subversion);
    if (u.body != nullptr) measure_body(u, bytes, have);
}

void measure_legacy(unit &u, const uint8_t *bytes, size_t have) {
    u.body_offset = wire::kMagicSize;
    if (have < u.body_offset + kLegacyHead) return need(u, u.body_offset + kLegacyHead);
    u.body = body_of_legacy(u.version, bytes[wire::kMagicSize + 1]);
    if (u.body == nullptr) return reject(u, bytes, have);
    u.kind = unit_kind::record;
    u.type = u.body->type;
    measure_body(u, bytes, have);
}

}  // namespace

unit next_unit(const uint8_t *bytes, size_t have) {
    unit u = {};
    size_t seen = have < wire::kMagicSize ? have : wire::kMagicSize;
    if (memcmp(bytes, wire::kMagic, seen) != 0) {
        u.kind = unit_kind::garbage;
        u.size = garbage_length(bytes, have);
        return u;
    }
    if (have <= wire::kMagicSize) {
        need(u, wire::kMagicSize + 1);
        return u;
    }
    u.version = bytes[wire::kMagicSize];
    if (u.version == 6) {
        measure_v6(u, bytes, have);
    } else if (u.version >= 1 && u.version <= 5) {
        measure_legacy(u, bytes, have);
    } else {
        reject(u, bytes, have);
    }
    return u;
}

}  // namespace receiver
