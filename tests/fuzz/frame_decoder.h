#pragma once
// Reads one unit to its end, from the documented layouts alone: where each form of a body keeps
// the lengths of what follows it. Shares nothing with the encoder.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace frame {

struct length_field {
    size_t offset, size;
};

// A fixed block as it travels, and the lengths in it of all the parts behind it.
struct layout {
    size_t block;
    std::vector<length_field> lengths;
};

// Lengths of one byte at `first`, `count` of them, and then others.
inline layout with_bytes(size_t block, size_t first, size_t count,
                         std::vector<length_field> others) {
    for (size_t i = 0; i < count; ++i) others.push_back({first + i, 1});
    return {block, others};
}

inline layout layout_of(int type, int ver, int sver) {
    if (type == 1 && ver == 1) return {128, {{17, 1}, {76, 2}}};
    if (type == 1 && ver == 2) return with_bytes(128, 78, 5, {{17, 1}, {76, 2}});
    // One byte longer: a zero stands behind the version.
    if (type == 1 && ver == 3) return with_bytes(129, 79, 5, {{18, 1}, {77, 2}});
    if (type == 1 && ver <= 5)
        return with_bytes(129, 79, 5, {{18, 1}, {77, 2}, {125, 1}, {126, 1}});
    if (type == 1 && sver == 0) return with_bytes(100, 92, 8, {{84, 2}});
    if (type == 1 && sver == 1) return with_bytes(216, 194, 10, {{210, 1}, {172, 2}});
    if (type == 1) return with_bytes(224, 202, 10, {{218, 1}, {180, 2}});
    if (type == 2 && ver <= 5) return {148, {}};
    if (type == 2 && sver == 0) return {128, {}};
    if (type == 2 && sver == 1) return with_bytes(204, 192, 5, {});
    if (type == 2) return with_bytes(232, 212, 7, {});
    if (type == 3 && ver <= 5) return {12, {{8, 4}}};
    if (type == 3) return {8, {{6, 2}}};
    // Two bytes of padding do not travel.
    if (ver <= 5) return {62, {{30, 4}, {42, 4}, {46, 4}, {50, 4}, {54, 4}, {58, 4}}};
    return {4, {{0, 4}}};
}

inline uint64_t number(const std::string &bytes, size_t offset, size_t size) {
    uint64_t value = 0;
    memcpy(&value, bytes.data() + offset, size);
    return value;
}

// True when `unit` is one unit of that type and version, has a correct start, and ends exactly
// where its length fields say.
inline bool ends_where_it_says(const std::string &unit, int type, int ver, int sver, int cid,
                               int third_party) {
    if (unit.compare(0, 8, "\x55\xAA\x55\xAA\xCE\xFA\xED\xFE") != 0) return false;
    size_t at = 8;
    if (ver == 6) {
        if (unit.size() < 16) return false;
        const uint64_t word = number(unit, 8, 4);
        if ((word & 0xFF) != 6 || (word >> 8 & 0xFFF) != static_cast<unsigned>(type) ||
            word >> 20 != static_cast<unsigned>(sver))
            return false;
        if (number(unit, 12, 2) != static_cast<unsigned>(third_party)) return false;
        if (number(unit, 14, 2) != static_cast<unsigned>(cid)) return false;
        at = 16;
    }
    const layout form = layout_of(type, ver, sver);
    if (unit.size() < at + form.block) return false;
    if (ver < 6 && number(unit, at, 1) != static_cast<unsigned>(ver)) return false;
    uint64_t total = at + form.block;
    for (const length_field &field : form.lengths)
        total += number(unit, at + field.offset, field.size);
    return total == unit.size();
}

}  // namespace frame
