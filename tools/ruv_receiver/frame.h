/**
 * Cuts a byte stream into the units of the RUV wire. Pure: no descriptor, no allocation, no state.
 *
 * The caller owns the bytes and keeps what is not yet complete; any thread may call.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/ruv_receiver/layout.h"

namespace receiver {

enum class unit_kind : uint8_t {
    incomplete, /**< not all there yet; `size` bytes are needed from the start before it is worth
                     another look */
    garbage,    /**< `size` bytes that belong to no unit: skip them */
    request,    /**< a request or information message */
    record      /**< an event record */
};

/** One unit, or the reason why there is none yet. Offsets count from the magic. */
struct unit {
    unit_kind kind;
    uint8_t version;      /**< 6, or 1 to 5 for a legacy record */
    uint16_t type;        /**< data type 0 to 4 */
    uint16_t subversion;  /**< zero-based; for a request its code */
    uint16_t third_party; /**< header's third-party type, version 6 only */
    uint16_t channel;     /**< header's channel id, version 6 only */
    uint16_t body_offset; /**< where the body begins */
    uint64_t size;        /**< bytes of the unit with its magic */
    const layout *body;   /**< null for requests and for records of magic and header only */
};

/** Looks at the `have` bytes from `bytes`, of which the first should be that of a magic. */
unit next_unit(const uint8_t *bytes, size_t have);

}  // namespace receiver
