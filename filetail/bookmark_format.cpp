#include "filetail/bookmark_format.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr size_t kDigits = 15;  // of every number

// Blank in the sense of the record: what ends a path. The padding of a record that was cut short
// and then followed by another one is NUL bytes.
bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}
bool is_padding(char c) {
    return is_blank(c) || c == '\0';
}

// Records are written and read once for every event: numbers go two digits at a time, and padding
// is compared with blanks as a whole.
constexpr std::array<char, 200> kPairs = [] {
    std::array<char, 200> pairs = {};
    for (size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

constexpr std::array<char, kBookmarkPathLimit> kBlanks = [] {
    std::array<char, kBookmarkPathLimit> blanks = {};
    blanks.fill(' ');
    return blanks;
}();

void put_number(char *out, uint64_t value) {
    std::memset(out, '0', kDigits);
    size_t at = kDigits;
    for (; value >= 100; value /= 100) {
        at -= 2;
        std::memcpy(out + at, &kPairs[value % 100 * 2], 2);
    }
    if (value >= 10) out[at - 2] = kPairs[value * 2];
    out[at - 1] = kPairs[value * 2 + 1];
}

// A number fills its column; only blanks may stand in front of its digits.
bool take_number(const char *in, uint64_t *value) {
    size_t i = 0;
    while (i < kDigits && is_blank(in[i])) ++i;
    if (i == kDigits || in[kDigits] != '|') return false;
    uint64_t sum = 0;
    unsigned wrong = 0;
    for (; i < kDigits; ++i) {
        const unsigned digit = static_cast<unsigned char>(in[i]) - unsigned{'0'};
        wrong |= digit > 9;
        sum = sum * 10 + digit;
    }
    *value = sum;
    return wrong == 0;
}

// The path ends at the first blank, and nothing but blanks may follow it: what follows would be the
// rest of a path that holds a blank, and that path is another one.
size_t path_length_of(const char *field, size_t size) {
    const char *end = std::find_if(field, field + size, is_padding);
    const size_t rest = static_cast<size_t>(field + size - end);
    if (std::memcmp(end, kBlanks.data(), rest) != 0 && !std::all_of(end, end + rest, is_padding)) {
        return 0;
    }
    return static_cast<size_t>(end - field);
}

// Everything before the path. False when the record is damaged or too short.
bool take_numbers(const char *bytes, size_t length, bookmark_record *record) {
    uint64_t head = 0;
    uint64_t tail = 0;
    if (length <= kBookmarkPathOffset || !take_number(bytes, &record->location) ||
        !take_number(bytes + 16, &head) || !take_number(bytes + 32, &tail)) {
        return false;
    }
    record->head = static_cast<uint32_t>(head);
    record->tail = static_cast<uint32_t>(tail);
    record->path = bytes + kBookmarkPathOffset;
    return true;
}

}  // namespace

bool bookmark_format(char out[kBookmarkRecord], uint64_t location, uint32_t head, uint32_t tail,
                     const char *path, size_t path_length) {
    if (path_length == 0 || path_length > kBookmarkPathLimit) return false;
    put_number(out, std::min(location, kBookmarkLocationLimit));
    put_number(out + 16, head);
    put_number(out + 32, tail);
    out[15] = out[31] = out[47] = '|';
    std::memcpy(out + kBookmarkPathOffset, path, path_length);
    std::memset(out + kBookmarkPathOffset + path_length, ' ', kBookmarkPathLimit - path_length);
    out[kBookmarkRecord - 1] = '\n';
    return true;
}

bookmark_record bookmark_parse(const char *bytes, size_t length) {
    bookmark_record record = {};
    if (!take_numbers(bytes, length, &record)) return record;
    const size_t size = std::min(length - kBookmarkPathOffset, kBookmarkPathLimit);
    record.path_length = path_length_of(record.path, size);
    // A record that ends with its path may have lost the rest of it.
    if (record.path_length == size && size < kBookmarkPathLimit) record.path_length = 0;
    return record;
}

bool bookmark_parse_of(const char *bytes, size_t length, const char *path, size_t path_length,
                       bookmark_record *record) {
    if (length == kBookmarkRecord && path_length > 0 && path_length <= kBookmarkPathLimit) {
        const char *field = bytes + kBookmarkPathOffset;
        if (std::memcmp(field, path, path_length) == 0 &&
            std::memcmp(field + path_length, kBlanks.data(), kBookmarkPathLimit - path_length) ==
                0 &&
            bookmark_path_findable(path, path_length)) {
            *record = {};
            if (!take_numbers(bytes, length, record)) return false;
            record->path_length = path_length;
            return true;
        }
    }
    *record = bookmark_parse(bytes, length);
    return record->path_length > 0 && record->path_length == path_length &&
           std::memcmp(record->path, path, path_length) == 0;
}

bool bookmark_path_findable(const char *path, size_t path_length) {
    if (path_length == 0 || path_length > kBookmarkPathLimit) return false;
    unsigned blanks = 0;
    for (size_t i = 0; i < path_length; ++i) blanks |= is_blank(path[i]);
    return blanks == 0;
}
