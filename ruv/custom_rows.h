#pragma once
/// Writers of the custom-field rows: who owns a row and how values are packed into its word.
///
/// Each writer claims row `row` of `record` for `id` and stores its value. Binary values are packed
/// from the most significant end: a value of w bits at bit offset `off` is shifted left by
/// 64 - w - off and ORed in; 64-bit values take the whole word. Signed values and floating-point
/// patterns travel with their sign bit inverted, so that packed words compare in numeric order.
///
/// All return 0 (the string writer: the stored length), or -1 and leave the record as it was:
/// error 53 when another id owns the row, 56 when there is no such row (a field that its catalogue
/// gives no row in this type of record), 55 when the offset would push the value out of the word.
#include <cstdint>

#include "ruv/record.h"

/// Stores a pointer to `text` (not a copy) and `len` clamped to 255. Returns the stored length.
int libruv_set_custom_field_str(RUVData_t *record, int id, int row, const char *text, int len);

int libruv_set_custom_field_bool(RUVData_t *record, int id, int row, int off, int value);
int libruv_set_custom_field_int8(RUVData_t *record, int id, int row, int off, int8_t value);
int libruv_set_custom_field_uint8(RUVData_t *record, int id, int row, int off, uint8_t value);
int libruv_set_custom_field_int16(RUVData_t *record, int id, int row, int off, int16_t value);
int libruv_set_custom_field_uint16(RUVData_t *record, int id, int row, int off, uint16_t value);
int libruv_set_custom_field_int32(RUVData_t *record, int id, int row, int off, int32_t value);
int libruv_set_custom_field_uint32(RUVData_t *record, int id, int row, int off, uint32_t value);
int libruv_set_custom_field_float(RUVData_t *record, int id, int row, int off, float value);
int libruv_set_custom_field_int64(RUVData_t *record, int id, int row, int64_t value);
int libruv_set_custom_field_uint64(RUVData_t *record, int id, int row, uint64_t value);
int libruv_set_custom_field_double(RUVData_t *record, int id, int row, double value);
