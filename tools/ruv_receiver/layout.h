/**
 * The tables of the record bodies: for each data type, version and sub-version the fixed block
 * with its fields, and the variable parts that follow it.
 *
 * Pure data, filled at compile time, read by any thread. Offsets are the documented ones of the
 * block in memory; at() turns them into offsets on the wire, which differ for the legacy Alert (one
 * byte more behind byte 0) and for the legacy Windows event (two bytes skipped behind byte 1).
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace receiver {

/** How a field of a block is read and shown. */
enum class shape : uint8_t {
    number,  /**< unsigned little-endian integer, 1, 2, 4 or 8 bytes */
    mac,     /**< 6 bytes, shown as aa:bb:cc:dd:ee:ff */
    ipv4,    /**< 32-bit host-order word, shown dotted */
    ipv6,    /**< 16 bytes in network order, shown as IPv6 text */
    either,  /**< 16 bytes: an IPv4 address in the last word, or an IPv6 address */
    source,  /**< as `either`, but an IPv6 address is four host-order words */
    hex,     /**< bytes, shown as hexadecimal digits */
    numbers, /**< array of unsigned integers: `count` of `size / count` bytes each */
    win_ver  /**< number that also carries a Windows version */
};

/** One field of a fixed block. `since` is the first record version that fills it. */
struct field {
    const char *name;
    uint16_t offset;
    uint16_t size; /**< bytes */
    shape kind = shape::number;
    uint8_t count = 1;
    uint8_t since = 0;
};

/** One variable part: its name, where the block holds its length, how wide that length is. */
struct part {
    const char *name;
    uint16_t length_offset;
    uint8_t length_width; /**< bytes */
    uint8_t since = 0;
    bool binary = false; /**< packet bytes: shown as hexadecimal digits, not as text */
};

/** One record body. */
struct layout {
    const char *name;     /**< name of the block */
    uint8_t type;         /**< data type 1 to 4 */
    uint16_t size;        /**< bytes of the fixed block on the wire */
    uint16_t shift_at;    /**< documented offsets from here on are moved by `shift` */
    int16_t shift;        /**< bytes */
    uint8_t rows;         /**< custom-field rows, 0 when the body has none */
    uint16_t row_bins;    /**< offset of the rows' packed words */
    uint16_t row_ids;     /**< offset of the rows' field ids */
    uint16_t row_lengths; /**< offset of the rows' string lengths */
    std::span<const field> fields;
    std::span<const part> parts; /**< with rows: the part ahead of the rows, then the last one */

    /** Turns a documented offset into the offset on the wire. */
    size_t at(size_t offset) const {
        return offset < shift_at ? offset : offset + static_cast<size_t>(shift);
    }
};

/**
 * Finds the body of a record with the version-6 header. `subversion` is the zero-based number of
 * the header. Null when there is no body: an Alert or Flow of a sub-version above the third is
 * magic and header only; types above 4 are unknown.
 */
const layout *body_of_v6(unsigned type, unsigned subversion);

/**
 * Finds the body of a legacy record by its first two bytes, the version (1 to 5) and the type
 * mark. Null when no such body exists.
 */
const layout *body_of_legacy(unsigned version, unsigned mark);

/** Bytes of the variable parts that a block announces. `version` is that of the record. */
uint64_t variable_size(const layout &body, const uint8_t *block, unsigned version);

}  // namespace receiver
