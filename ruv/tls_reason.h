#pragma once
/// Why TLS failed, in words: what RUVStrError appends for a handle with TLS options of its own.
///
/// A reason names what is wrong, where, and what mends it. It never shows a file's content, and
/// what a peer has sent appears with its unprintable bytes replaced, so that no log line can be
/// forged. All write conn->tls_reason, cut to its size; the calling thread owns the handle.
#include <cstddef>

#include "ruv/conn.h"

namespace ruv {

/// A file that an option names.
struct tls_file {
    const char *role;    ///< "trusted certificates", "client certificate", "client key"
    const char *path;    ///< as it was given
    const char *wanted;  ///< what it must hold: "certificate", "private key"
};

/// Sets the reason.
void tls_note(RUVConn *conn, const char *format, ...) __attribute__((format(printf, 2, 3)));

/// The file could not be used: missing, unreadable, a directory or empty, by a look at it; else
/// it holds no such thing, or a damaged one, which `detail` (the TLS library's words) tells.
void tls_note_file(RUVConn *conn, const tls_file &file, const char *detail);

/// Its key is protected by a pass phrase.
void tls_note_locked(RUVConn *conn, const tls_file &key);

/// Key and certificate are not a pair. `detail` as above.
void tls_note_mismatch(RUVConn *conn, const tls_file &key, const char *cert_path,
                       const char *detail);

/// Appends `length` bytes from a peer to the text in `out` (of `size` bytes), unprintable ones as
/// '?', as far as they fit.
void tls_append_foreign(char *out, size_t size, const void *bytes, size_t length);

}  // namespace ruv
