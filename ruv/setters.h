#pragma once
/// Checks that the setters share. The public setters are declared in ruvlibsetters.h and made from
/// the table setters.def; the two custom-field setters stand in custom_field.cpp.
#include <algorithm>
#include <climits>
#include <cstring>

#include "ruv/error.h"
#include "ruv/record.h"

/// Checks that `record` is there and of `type`. Returns 0, or -1 with error 2 (arg #1) or 50.
inline int libruv_setter_helper_other(const void *record, uint32_t type) {
    if (record == nullptr) return ruv::fail(2, 1);
    if (static_cast<const RUVData_t *>(record)->ctl.type != type) return ruv::fail(50);
    return 0;
}

/// As above, and error 52 for a negative length or null data.
inline int libruv_setter_helper_str(const void *record, uint32_t type, const void *data, int len) {
    if (libruv_setter_helper_other(record, type) != 0) return -1;
    return len < 0 || data == nullptr ? ruv::fail(52) : 0;
}

/// The number of bytes that a caller's text has: `len`, or its string length when that is 0.
inline int libruv_text_length(const char *text, int len) {
    if (len != 0) return len;
    return static_cast<int>(std::min(strlen(text), static_cast<size_t>(INT_MAX)));
}
