#pragma once
/// The part of a record's dump that shows its custom-field rows.

struct RUVConn;
struct RUVData_t;

/// Prints rows 0 to `count` - 1 on standard error. A free row is "unused"; an owned one shows its
/// id, four markers and, with the help of the connection's catalogue, name, type and value of each
/// field in it. The markers, '-' when they do not hold: 'A' the row is an Alert's, 'F' a Flow's,
/// 'S' it holds a string, 'B' its word is not zero. When the catalogue cannot resolve the row:
/// "***Lookup Failed***" no field has the id, "***Bad ID***" its group says another one, "***Bad
/// CFI***" the group has no field for this row in this type of record.
void libruv_print_custom_fields(RUVConn *conn, const RUVData_t *record, int count);
