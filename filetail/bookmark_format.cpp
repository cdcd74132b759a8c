#include "filetail/bookmark_format.h"

#include <algorithm>
#include <array>
#include <bit>
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

// Eight bytes at once, and the same byte in each of them.
uint64_t word_at(const char *bytes) {
    uint64_t word;
    std::memcpy(&word, bytes, sizeof(word));
    return word;
}
constexpr uint64_t eight_of(unsigned char byte) {
    return byte * uint64_t{0x0101010101010101};
}

bool are_digits(uint64_t word) {
    const uint64_t high = eight_of(0xF0);
    return (word & high) == eight_of('0') && ((word + eight_of(6)) & high) == eight_of('0');
}

// The value of eight digits, the first of them in the lowest byte: neighbours are joined to pairs,
// pairs to fours, fours to the whole.
uint64_t value_of_digits(uint64_t word) {
    word -= eight_of('0');
    word = (word * 10 + (word >> 8)) & 0x00FF00FF00FF00FF;
    word = (word * 100 + (word >> 16)) & 0x0000FFFF0000FFFF;
    return (word * 10'000 + (word >> 32)) & 0xFFFFFFFF;
}

// The form in which numbers are written: digits only. The two words share a digit, which counts in
// the first.
bool take_digits(const char *in, uint64_t *value) {
    if (std::endian::native != std::endian::little) return false;
    const uint64_t first = word_at(in);
    const uint64_t second = word_at(in + kDigits - 8);
    if (!are_digits(first) || !are_digits(second)) return false;
    *value =
        value_of_digits(first) * 10'000'000 + value_of_digits((second & ~uint64_t{0xFF}) | '0');
    return true;
}

// A number fills its column; only blanks may stand in front of its digits.
bool take_number(const char *in, uint64_t *value) {
    if (in[kDigits] != '|') return false;
    if (take_digits(in, value)) return true;
    size_t i = 0;
    while (i < kDigits && is_blank(in[i])) ++i;
    if (i == kDigits) return false;
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

// False when none of at least eight bytes is a blank; true may be wrong for other control bytes.
bool may_hold_blank(const char *path, size_t length) {
    uint64_t found = 0;
    for (size_t at = 0; at < length; at += 8) {
        const uint64_t word = word_at(path + std::min(at, length - 8));
        const uint64_t spaces = word ^ eight_of(' ');
        found |= (spaces - eight_of(1)) & ~spaces;     // a byte that is zero now
        found |= (word - eight_of('\r' + 1)) & ~word;  // a byte of 0 to 13
    }
    return (found & eight_of(0x80)) != 0;
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
    if (path_length >= 8 && !may_hold_blank(path, path_length)) return true;
    unsigned blanks = 0;
    for (size_t i = 0; i < path_length; ++i) blanks |= is_blank(path[i]);
    return blanks == 0;
}
