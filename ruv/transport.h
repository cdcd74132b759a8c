#pragma once
/// The only input and output of the library: resolving, connecting, and moving gathered buffers
/// over the socket or the TLS stream on it.
///
/// The calling thread owns the handle. Every wait asks the handle's interrupt callback at least
/// four times a second; a callback that says stop ends the call with error 3, errno EINTR.
#include <sys/uio.h>

#include "ruv/conn.h"

/// Resolves conn->host into conn->conninfo (first address only, port set). Blocks up to 29 s of
/// retries plus one resolver call. @return 0, or -1 with error 10 or 4.
int libruv_resolve(RUVConn *conn);

/// Opens the socket, and TLS on it when `ssl_on`; fills conn->ip_addr. Blocks as long as the
/// kernel tries to connect. On failure the socket is closed. @return 0, or -1 with error 3, 4, or
/// one of libruv_ssl_connect.
int libruv_connect(RUVConn *conn, int ssl_on);

/// TLS handshake on the open socket. On failure conn->ssl_conn is null and the socket stays open.
/// @return 0, or -1 with error 3, 6, 19 or 20.
int libruv_ssl_connect(RUVConn *conn);

/// Ends TLS and closes the socket, if open. Keeps errno and the error state.
void libruv_disconnect(RUVConn *conn);

/// Writes all segments in order; the array is consumed in place. Blocks until everything is
/// accepted by the kernel. @return bytes written, or -1 with error 3, 4 or 6 (the TLS library's own
/// result, which may be 0, is the error's first argument).
int libruv_write(RUVConn *conn, int iovcnt, iovec *iov);

/// Fills the segments; every caller passes exactly one. Blocks until it is full. @return bytes
/// read, or -1 with error 3, 4 or 6 (end of a plain stream: error 3).
int libruv_read(RUVConn *conn, int iovcnt, iovec *iov);

/// Waits until an answer can be read, at most `budget_ms` milliseconds.
/// @return 1 readable, 0 timed out, -1 with error 3.
int libruv_wait_readable(RUVConn *conn, int budget_ms);

/// @return 0 while the idle peer is still there, -1 with error 3 (EPIPE or ECONNRESET) or 6.
int libruv_check_peer(RUVConn *conn);

/// Sleeps between two tries. @return 0, or -1 with error 3, errno EINTR, when interrupted.
int libruv_pause(RUVConn *conn, int seconds);
