/**
 * The TLS side of the Receiver; the only file of it that knows the TLS library.
 *
 * The server context is made once; a stream belongs to one connection. Nothing blocks: every call
 * says what it waits for.
 */
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "tools/ruv_receiver/settings.h"

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace receiver {

enum class io_state : uint8_t { done, want_read, want_write, closed, failed };

/** Result of one transfer: `bytes` moved when `state` is done. */
struct io_result {
    io_state state;
    size_t bytes;
};

struct tls_deleter {
    void operator()(SSL *stream) const;
    void operator()(SSL_CTX *context) const;
};
using tls_stream = std::unique_ptr<SSL, tls_deleter>;
using tls_server = std::unique_ptr<SSL_CTX, tls_deleter>;

/**
 * Makes the server context from the certificate named in the settings or from one made in memory.
 * Clients down to TLS 1.0 are served unless --tls-min forbids it. Null with `*error` set on
 * failure.
 */
tls_server tls_make_server(const settings &chosen, std::string *error);

/** Opens the server side of a stream on a non-blocking socket; null on failure. */
tls_stream tls_open(SSL_CTX *server, int fd);

io_result tls_handshake(SSL *stream);
io_result tls_read(SSL *stream, void *buffer, size_t length);
io_result tls_write(SSL *stream, const void *buffer, size_t length);

/** True when decrypted bytes wait inside the stream, which no readiness of the socket announces. */
bool tls_pending(const SSL *stream);

/** Protocol version and cipher in words, such as "TLSv1 ECDHE-RSA-AES256-SHA". */
std::string tls_describe(const SSL *stream);

/** The reason of the last failure in words; empties the error queue. */
std::string tls_last_error();

}  // namespace receiver
