#pragma once
/// The Receiver's custom fields: download, parsing and the two indexes of the catalogue that the
/// handle keeps. Parsing takes no descriptor. The calling thread owns the handle.
#include <cstddef>

#include "ruv/conn.h"

inline constexpr int kFieldTypes = 16;
/// Printed name of a type code: "none", "string", "boolean", "int8", ...
extern const char *const cftype_to_string[kFieldTypes];

/// Type codes that others need by name.
enum custom_field_type : int {
    kFieldNone = 0,
    kFieldString = 1,
    kFieldBoolean = 2,
    kFieldInt8 = 3,
    kFieldUint8 = 4,
    kFieldInt16 = 5,
    kFieldUint16 = 6,
    kFieldInt32 = 7,
    kFieldUint32 = 8,
    kFieldInt64 = 9,
    kFieldUint64 = 10,
    kFieldIPv4 = 11,
    kFieldProto = 12,
    kFieldPort = 13,
    kFieldFloat = 14,
    kFieldDouble = 15,
};

/// Downloads the field-definition file and replaces the catalogue. @return 0, or -1 with a
/// transfer error, 13, or 1 and an empty catalogue (no memory, or a size outside 0 to 16 MiB).
int libruv_request_custom_fields(RUVConn *conn);

/// Parses the zero-terminated `text` (cut up in place) and replaces the catalogue. @return 0, or
/// -1 with error 1 and an empty catalogue: no memory, or more than 65,536 fields.
int libruv_load_catalogue(custom_fields_info_t *catalogue, char *text);

/// @return the field of that name, or null; no error is set.
custom_field_info_t *libruv_lookup_custom_field(RUVConn *conn, const char *fieldname);

/// @return the fields that share `id`, or null; no error is set.
cfid_to_cfi_t *find_cfi_by_id(RUVConn *conn, uint16_t id);

/// Frees the catalogue's arrays and leaves it empty.
void libruv_free_catalogue(custom_fields_info_t *catalogue);
