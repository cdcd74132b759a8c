#pragma once
/// The lines of the Alert and Flow dumps as tables: which label shows which field of a block.
#include <cstdint>
#include <span>

/// One line. The size says how it is shown: 1, 2, 4 and 8 bytes as a number, 6 as a MAC address,
/// 16 as an address, whose IPv4 form stands at `tail`.
struct field_line {
    const char *label;
    uint8_t offset, size, tail;
};

/// A text of an Alert: the row that holds it, and where the block holds its length.
struct text_line {
    const char *label;
    uint8_t row, length_offset;
};

extern const std::span<const field_line> kAlertV5Lines, kAlertV6V1Lines, kAlertV6V2Lines,
    kAlertV6V3Lines;  ///< the last one is what sub-version 3 has in front of sub-version 2
extern const std::span<const field_line> kFlowV5Lines, kFlowV6V1Lines, kFlowV6V3Lines;
extern const std::span<const text_line> kAlertV5Texts, kAlertV6V1Texts;
