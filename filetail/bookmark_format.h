// The bookmark file's record: 199 bytes, fixed columns, no header around it.
//
//     bytes    0-14   location, decimal, 15 digits        15   "|"
//     bytes   16-30   head checksum, the same             31   "|"
//     bytes   32-46   tail checksum, the same             47   "|"
//     bytes  48-197   path, padded with blanks           198   line feed
//
// Pure: no descriptor, no lock, any thread.

#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr size_t kBookmarkRecord = 199;     ///< bytes of a whole record
inline constexpr size_t kBookmarkPathOffset = 48;  ///< bytes before the path
inline constexpr size_t kBookmarkPathLimit = 150;  ///< bytes of the longest path
inline constexpr uint64_t kBookmarkLocationLimit =
    999'999'999'999'999;  ///< largest 15-digit number

struct bookmark_record {
    uint64_t location;
    uint32_t head;
    uint32_t tail;
    const char *path;    ///< into the parsed bytes, not terminated
    size_t path_length;  ///< 0 when the record holds no usable path: it then matches nothing
};

/// Writes the record of `path` to `out` (exactly 199 bytes, no terminator). False, with `out`
/// untouched, when the path is empty or longer than 150 bytes.
bool bookmark_format(char out[kBookmarkRecord], uint64_t location, uint32_t head, uint32_t tail,
                     const char *path, size_t path_length);

/// Reads a record of up to 199 bytes; fewer are a last record that was cut short, which is read as
/// far as it goes: its path counts only when the blank or line feed behind it is still there. A
/// path with a blank inside, or a number that is none, leaves `path_length` 0.
bookmark_record bookmark_parse(const char *bytes, size_t length);

/// bookmark_parse() for a record that is expected to be that of `path`, which is compared in one
/// go. Returns whether it is; *record is filled in any case.
bool bookmark_parse_of(const char *bytes, size_t length, const char *path, size_t path_length,
                       bookmark_record *record);

/// True when a record can be found by `path`: 1 to 150 bytes, none of them blank.
bool bookmark_path_findable(const char *path, size_t path_length);
