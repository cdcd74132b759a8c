// Wide and narrow text of core/utils.h.
#include <climits>
#include <cstdlib>
#include <cstring>

#include "core/utils.h"

namespace {

// Bytes that do not decode are carried as these characters of the private use area. Text that
// decodes to one of them is carried byte by byte as well, so that the way back is never ambiguous.
constexpr wchar_t kFirstRawByte = 0xF700;
constexpr wchar_t kLastRawByte = 0xF7FF;

constexpr size_t kLongestUtf8 = 6;

wchar_t raw_byte(char byte) {
    return kFirstRawByte + static_cast<unsigned char>(byte);
}

// Decodes one character at `from`. Returns the bytes taken, or 0 when they are no character that
// the encoder would turn back into the same bytes.
size_t decode_one(const char *from, size_t size, wchar_t *character) {
    mbstate_t shift = {};
    const size_t taken = mbrtowc(character, from, size, &shift);
    if (taken == 0) return 1;  // a NUL byte
    if (taken > size || (*character >= kFirstRawByte && *character <= kLastRawByte)) return 0;
    char back[MB_LEN_MAX];
    shift = {};
    return wcrtomb(back, *character, &shift) == taken && memcmp(back, from, taken) == 0 ? taken : 0;
}

// Decodes the next character into *to, or carries one byte; returns the bytes taken.
size_t decode_or_carry(const char *from, size_t size, wchar_t *to) {
    const size_t taken = decode_one(from, size, to);
    if (taken > 0) return taken;
    *to = raw_byte(*from);
    return 1;
}

// Returns how many bytes the decoder wants to see for the character at `from`, which is not NUL. It
// never looks past the character, since the text may end there without a terminator.
size_t bytes_of_character(const char *from) {
    size_t seen = 1;
    for (; seen < MB_CUR_MAX && from[seen - 1] != '\0'; ++seen) {
        mbstate_t shift = {};
        if (mbrtowc(nullptr, from, seen, &shift) != static_cast<size_t>(-2)) break;
    }
    return seen;
}

// Writes a character that the locale's encoding does not have; returns the bytes written.
size_t encode_utf8(uint32_t character, char *to) {
    if (character < 0x80) {
        *to = static_cast<char>(character);
        return 1;
    }
    size_t more = 1;
    while (more < kLongestUtf8 - 1 && character >> (5 * more + 6) != 0) ++more;
    const auto lead = static_cast<unsigned char>(0xFF << (7 - more));
    *to = static_cast<char>(lead | (more < 5 ? character >> (6 * more) : character >> 30 & 1));
    for (size_t i = 1; i <= more; ++i) {
        to[i] = static_cast<char>(0x80 | (character >> (6 * (more - i)) & 0x3F));
    }
    return more + 1;
}

size_t encode_one(wchar_t character, char *to) {
    if (character >= kFirstRawByte && character <= kLastRawByte) {
        *to = static_cast<char>(character - kFirstRawByte);
        return 1;
    }
    mbstate_t shift = {};
    const size_t written = wcrtomb(to, character, &shift);
    if (written != static_cast<size_t>(-1)) return written;
    return encode_utf8(static_cast<uint32_t>(character), to);
}

}  // namespace

char *wstrtostr(const wchar_t *source) {
    if (!source) return nullptr;
    const size_t widest = MB_CUR_MAX > kLongestUtf8 ? MB_CUR_MAX : kLongestUtf8;
    char *text = static_cast<char *>(malloc(wcslen(source) * widest + 1));
    if (!text) return nullptr;
    char *end = text;
    for (; *source; ++source) end += encode_one(*source, end);
    *end++ = '\0';
    char *fitted = static_cast<char *>(realloc(text, static_cast<size_t>(end - text)));
    return fitted ? fitted : text;
}

wchar_t *strtowstr(const char *source, int length) {
    if (!source) return nullptr;
    const size_t limit = length > 0 ? static_cast<size_t>(length) : 0;
    auto *wide = static_cast<wchar_t *>(malloc((limit + 1) * sizeof(wchar_t)));
    if (!wide) return nullptr;
    size_t count = 0;
    for (; count < limit && *source; ++count) {
        source += decode_or_carry(source, bytes_of_character(source), &wide[count]);
    }
    wide[count] = L'\0';
    return wide;
}

wchar_t *bytes_to_wide(const char *source, size_t size, size_t *length) {
    auto *wide = static_cast<wchar_t *>(malloc((size + 1) * sizeof(wchar_t)));
    if (!wide) return nullptr;
    size_t count = 0;
    for (; size > 0; ++count) {
        const size_t taken = decode_or_carry(source, size, &wide[count]);
        source += taken;
        size -= taken;
    }
    wide[count] = L'\0';
    if (length) *length = count;
    return wide;
}
