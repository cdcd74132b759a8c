#pragma once
/// Request/information messages: the header of every unit, sending a request, checking the
/// result word, and RUVGetReceiverVer. The calling thread owns the handle.
#include "ruv/conn.h"
#include "ruv/wire.h"

/// Fills `header`: the word is (dv << 20) | ((dt & 0xFFF) << 8) + (pv & 0xFF); `dv` is not masked
/// and must fit in 12 bits. Prints the header when data dumping is on.
void libruv_set_hdrv6(RUVv6_Header_t *header, int pv, int dt, int dv, int tpt, int cid);

/// Writes magic and header of request `type` in one write. @return libruv_write's result.
int libruv_send_rqstinfo(RUVConn *conn, int type, int cid, int tpt);

/// Reads the result word. @return 0 for "OKAY", else -1 (error 13, or libruv_read's).
int libruv_rqstinfo_check_result(RUVConn *conn);

/// Sends the bodiless request `type` and checks the answer. @return 0 or -1
int libruv_ask(RUVConn *conn, int type, int cid, int tpt);

/// Reads exactly `size` bytes. @return 0, or -1 with libruv_read's error.
int libruv_read_exact(RUVConn *conn, void *buffer, size_t size);

/// True when the Receiver said that it understands request code `type`.
inline bool libruv_understands(const RUVConn *conn, int type) {
    return (conn->data_versions[kRequest][kProtocolVersions - 1] >> type & 1) != 0;
}
