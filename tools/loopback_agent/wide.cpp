#include "tools/loopback_agent/wide.h"

#include <cstdint>

namespace loopback {

namespace {

constexpr uint32_t kLastCharacter = 0x10FFFF;

// Length of the sequence that this byte opens; 0 for a byte that opens none.
int sequence_length(unsigned char first) {
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first < 0xE0) return 2;
    if (first >= 0xE0 && first < 0xF0) return 3;
    return first >= 0xF0 && first < 0xF5 ? 4 : 0;
}

}  // namespace

std::wstring from_utf8(const std::string &text) {
    std::wstring wide;
    for (size_t at = 0; at < text.size();) {
        const auto first = static_cast<unsigned char>(text[at]);
        const int length = sequence_length(first);
        uint32_t c = length < 2 ? first : first & (0xFFu >> (length + 1));
        bool valid = length > 0 && text.size() - at >= static_cast<size_t>(length);
        for (int i = 1; valid && i < length; i++) {
            const auto next = static_cast<unsigned char>(text[at + static_cast<size_t>(i)]);
            valid = (next & 0xC0) == 0x80;
            c = c << 6 | (next & 0x3F);
        }
        wide += static_cast<wchar_t>(valid ? c : first);
        at += valid ? static_cast<size_t>(length) : 1;
    }
    return wide;
}

std::string to_utf8(const std::wstring &text) {
    std::string narrow;
    const auto put = [&](uint32_t byte) { narrow += static_cast<char>(byte); };
    for (const wchar_t wide : text) {
        const auto c = static_cast<uint32_t>(wide);
        if (c < 0x80) {
            put(c);
        } else if (c < 0x800) {
            put(0xC0 | c >> 6);
            put(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            put(0xE0 | c >> 12);
            put(0x80 | (c >> 6 & 0x3F));
            put(0x80 | (c & 0x3F));
        } else if (c <= kLastCharacter) {
            put(0xF0 | c >> 18);
            put(0x80 | (c >> 12 & 0x3F));
            put(0x80 | (c >> 6 & 0x3F));
            put(0x80 | (c & 0x3F));
        } else {
            put('?');
        }
    }
    return narrow;
}

}  // namespace loopback
