// The key=value file: read into an ordered list of pairs.
//
// A line is cut at its first "="; nothing is trimmed. A line without "=" becomes a pair whose key
// and value are both the whole line. The last character of a line is taken to be its line feed and
// dropped, so writers must end every line with one. The functions may be called on any thread; they
// share nothing.
#pragma once

#include <cstdint>
#include <cwchar>

struct key_value_pair {
    wchar_t *key;       ///< text before the first "="
    int32_t key_len;    ///< in wide characters
    wchar_t *value;     ///< text after the first "="
    int32_t value_len;  ///< in wide characters
};

/// The pairs of a file in its order. Owns every pair and string (all from malloc).
struct key_value_pair_spec {
    key_value_pair **kvp;
    int32_t count;
};

/// Reads `file` into a new *spec. With `include_comments` 0, lines that begin with "#" and lines
/// of blanks and control characters are dropped; with 1 they are kept as pairs. Returns 0, or 1
/// when the file cannot be opened or read (the reason is then on standard output and *spec is an
/// empty list).
int conf_parse_key_value_pair(const char *file, key_value_pair_spec **spec, int include_comments);

/// Frees a list with all it owns; null is ignored.
void conf_teardown_key_value_pair(key_value_pair_spec *spec);

/// Returns a new wide copy of a narrow string, which the caller frees; null gives null.
wchar_t *widen(const char *text);
