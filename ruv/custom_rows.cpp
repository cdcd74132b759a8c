#include "ruv/custom_rows.h"

#include <algorithm>
#include <cstring>

#include "ruv/error.h"

namespace {

constexpr int kRowTextMax = 255;  // the length on the wire has 8 bits
constexpr int kWordBits = 64;

// True when `id` may write `row`; sets the error otherwise.
bool may_claim(const RUVData_t *record, int id, int row) {
    if (row < 0 || row >= kCustomRows) {
        ruv::fail(56);
        return false;
    }
    const uint16_t owner = record->data.cfdata.id[row];
    if (owner == 0 || owner == static_cast<uint16_t>(id)) return true;
    ruv::fail(53);
    return false;
}

// Position of a value of `width` bits, counted from the least significant end; -1 sets the error.
int shift_of(int width, int off) {
    if (off >= 0 && off <= kWordBits - width) return kWordBits - width - off;
    return ruv::fail(55);
}

int pack(RUVData_t *record, int id, int row, int off, int width, uint64_t value) {
    if (!may_claim(record, id, row)) return -1;
    const int shift = shift_of(width, off);
    if (shift < 0) return -1;
    record->data.cfdata.bin[row] |= value << shift;
    record->data.cfdata.id[row] = static_cast<uint16_t>(id);
    return 0;
}

int store_word(RUVData_t *record, int id, int row, uint64_t value) {
    if (!may_claim(record, id, row)) return -1;
    record->data.cfdata.bin[row] = value;
    record->data.cfdata.id[row] = static_cast<uint16_t>(id);
    return 0;
}

}  // namespace

int libruv_set_custom_field_str(RUVData_t *record, int id, int row, const char *text, int len) {
    if (!may_claim(record, id, row)) return -1;
    len = std::min(len, kRowTextMax);
    record->data.cfdata.data[row] = reinterpret_cast<const uint8_t *>(text);
    record->data.cfdata.len[row] = static_cast<uint8_t>(len);
    record->data.cfdata.id[row] = static_cast<uint16_t>(id);
    return len;
}

int libruv_set_custom_field_bool(RUVData_t *record, int id, int row, int off, int value) {
    if (pack(record, id, row, off, 1, 1) != 0) return -1;
    if (value == 0) record->data.cfdata.bin[row] &= ~(uint64_t{1} << (kWordBits - 1 - off));
    return 0;
}

int libruv_set_custom_field_int8(RUVData_t *record, int id, int row, int off, int8_t value) {
    return libruv_set_custom_field_uint8(record, id, row, off, static_cast<uint8_t>(value ^ 0x80));
}

int libruv_set_custom_field_uint8(RUVData_t *record, int id, int row, int off, uint8_t value) {
    return pack(record, id, row, off, 8, value);
}

int libruv_set_custom_field_int16(RUVData_t *record, int id, int row, int off, int16_t value) {
    return libruv_set_custom_field_uint16(record, id, row, off,
                                          static_cast<uint16_t>(value ^ 0x8000));
}

int libruv_set_custom_field_uint16(RUVData_t *record, int id, int row, int off, uint16_t value) {
    return pack(record, id, row, off, 16, value);
}

int libruv_set_custom_field_int32(RUVData_t *record, int id, int row, int off, int32_t value) {
    return pack(record, id, row, off, 32, static_cast<uint32_t>(value) ^ 0x80000000u);
}

int libruv_set_custom_field_uint32(RUVData_t *record, int id, int row, int off, uint32_t value) {
    return pack(record, id, row, off, 32, value);
}

int libruv_set_custom_field_float(RUVData_t *record, int id, int row, int off, float value) {
    uint32_t pattern;
    memcpy(&pattern, &value, sizeof pattern);
    // Kept: only +0.0 is moved to the pattern of minus infinity, -0.0 takes the sign flip like
    // every negative value; stored words of older senders compare that way.
    pattern = pattern == 0 ? 0xFF800000u : pattern ^ 0x80000000u;
    return pack(record, id, row, off, 32, pattern);
}

int libruv_set_custom_field_int64(RUVData_t *record, int id, int row, int64_t value) {
    return store_word(record, id, row, static_cast<uint64_t>(value) ^ uint64_t{1} << 63);
}

int libruv_set_custom_field_uint64(RUVData_t *record, int id, int row, uint64_t value) {
    return store_word(record, id, row, value);
}

int libruv_set_custom_field_double(RUVData_t *record, int id, int row, double value) {
    uint64_t pattern;
    memcpy(&pattern, &value, sizeof pattern);
    // Kept: as for float.
    pattern = pattern == 0 ? uint64_t{0xFFF00000u} << 32 : pattern ^ uint64_t { 1 } << 63;
    return store_word(record, id, row, pattern);
}
