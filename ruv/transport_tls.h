#pragma once
/// TLS on a handle's socket; transport_tls.cpp is the only file that knows the TLS library.
///
/// Two kinds of handle: by default the process-wide TLS 1.0 client context, made before main, is
/// used; after RUVSetTLSOptions the handle has a context of its own that checks the peer and
/// accepts nothing below TLS 1.2. The calling thread owns the handle. Waits are those of wait.h.
#include <sys/uio.h>

#include "ruv/conn.h"

namespace ruv {

/// Makes and frees the process-wide context. Called at library start and end, and by tests.
void tls_start();
void tls_end();

/// @return true while the process-wide context exists.
bool tls_ready();

/// Makes conn->ssl_conn on the open socket and runs the handshake; the socket is non-blocking
/// meanwhile. On failure conn->ssl_conn is null again. @return 0, or -1 with error 3, 6, 19, 20.
int tls_connect(RUVConn *conn);

/// Moves one segment completely, advancing it. `more_follows` says that another write comes at
/// once. @return 1, or -1 with error 3, 4 or 6.
int tls_write_segment(RUVConn *conn, iovec *segment, bool more_follows);
int tls_read_segment(RUVConn *conn, iovec *segment);

/// @return true when decrypted bytes are waiting, which no poll on the socket would show.
bool tls_pending(const RUVConn *conn);

/// @return true when the peer has ended the session, which it may do long before the connection.
bool tls_ended(const RUVConn *conn);

/// After the idle socket became readable: @return 0 when the peer is still there, else -1 with
/// error 3 or 6.
int tls_check_peer(RUVConn *conn);

/// Ends the session and frees conn->ssl_conn.
void tls_close(RUVConn *conn);

/// Builds conn->tls_ctx; see RUVSetTLSOptions. @return 0, or -1 with error 2, 6 or 20.
int tls_set_options(RUVConn *conn, const char *min_version, const char *ca_file,
                    const char *cert_file, const char *key_file);

/// Frees conn->tls_ctx.
void tls_free_options(RUVConn *conn);

}  // namespace ruv
