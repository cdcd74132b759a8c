#pragma once
/// Dumps of records on standard error, written between encoding and writing while data dumping is
/// on. They show the control part, the block as encoded, then the variable parts; they change
/// nothing and read no byte beyond a segment. The thread that owns the connection calls them.
///
/// Every printer takes the connection (for its catalogue), the record, the block and the segments
/// of the encoded unit.
#include <sys/uio.h>

struct RUVConn;
struct RUVData_t;
struct encoded_unit;

/// Prints an encoded record with the printer of its form. A Flow of version 6 sub-version 2 and a
/// unit without body print nothing.
void libruv_print_record(RUVConn *conn, const RUVData_t *record, const encoded_unit &unit);

void libruv_print_alertv5(RUVConn *conn, const RUVData_t *record, const void *block,
                          const iovec *segments, int count);
void libruv_print_alertv6v1(RUVConn *conn, const RUVData_t *record, const void *block,
                            const iovec *segments, int count);
void libruv_print_alertv6v2(RUVConn *conn, const RUVData_t *record, const void *block,
                            const iovec *segments, int count);
void libruv_print_alertv6v3(RUVConn *conn, const RUVData_t *record, const void *block,
                            const iovec *segments, int count);
void libruv_print_flowv5(RUVConn *conn, const RUVData_t *record, const void *block,
                         const iovec *segments, int count);
void libruv_print_flowv6v1(RUVConn *conn, const RUVData_t *record, const void *block,
                           const iovec *segments, int count);
void libruv_print_flowv6v3(RUVConn *conn, const RUVData_t *record, const void *block,
                           const iovec *segments, int count);
void libruv_print_syslogv5v1(RUVConn *conn, const RUVData_t *record, const void *block,
                             const iovec *segments, int count);
void libruv_print_syslogv6v1(RUVConn *conn, const RUVData_t *record, const void *block,
                             const iovec *segments, int count);
void libruv_print_winevntv5v1(RUVConn *conn, const RUVData_t *record, const void *block,
                              const iovec *segments, int count);
void libruv_print_winevntv6v1(RUVConn *conn, const RUVData_t *record, const void *block,
                              const iovec *segments, int count);
