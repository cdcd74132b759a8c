#include "filetail/bookmark_format.h"

#include <algorithm>
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

void put_number(char *out, uint64_t value) {
    for (size_t i = kDigits; i-- > 0; value /= 10) out[i] = static_cast<char>('0' + value % 10);
}

// A number fills its column; only blanks may stand in front of its digits.
bool take_number(const char *in, uint64_t *value) {
    size_t i = 0;
    while (i < kDigits && is_blank(in[i])) ++i;
    if (i == kDigits || in[kDigits] != '|') return false;
    uint64_t sum = 0;
    for (; i < kDigits; ++i) {
        if (in[i] < '0' || in[i] > '9') return false;
        sum = sum * 10 + static_cast<uint64_t>(in[i] - '0');
    }
    *value = sum;
    return true;
}

// The path ends at the first blank, and nothing but blanks may follow it: what follows would be the
// rest of a path that holds a blank, and that path is another one.
size_t path_length_of(const char *field, size_t size) {
    const char *end = std::find_if(field, field + size, is_padding);
    if (!std::all_of(end, field + size, is_padding)) return 0;
    return static_cast<size_t>(end - field);
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
    uint64_t head = 0;
    uint64_t tail = 0;
    if (length <= kBookmarkPathOffset || !take_number(bytes, &record.location) ||
        !take_number(bytes + 16, &head) || !take_number(bytes + 32, &tail)) {
        return record;
    }
    record.head = static_cast<uint32_t>(head);
    record.tail = static_cast<uint32_t>(tail);
    record.path = bytes + kBookmarkPathOffset;
    const size_t size = std::min(length - kBookmarkPathOffset, kBookmarkPathLimit);
    record.path_length = path_length_of(record.path, size);
    // A record that ends with its path may have lost the rest of it.
    if (record.path_length == size && size < kBookmarkPathLimit) record.path_length = 0;
    return record;
}

bool bookmark_path_findable(const char *path, size_t path_length) {
    return path_length > 0 && path_length <= kBookmarkPathLimit &&
           std::none_of(path, path + path_length, is_blank);
}
