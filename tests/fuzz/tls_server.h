#pragma once
// The server's side of a TLS stream for fuzzing: identities made on the spot, a peer that serves
// one connection and may damage its own stream, and random numbers that are the same each time, so
// that a stored stream of a server still fits the client's half.
// The random numbers can be exchanged by a deprecated call only.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace tls_server {

inline thread_local uint64_t t_random = 1;

inline int fill(unsigned char *bytes, int count) {
    for (int i = 0; i < count; ++i) {
        t_random ^= t_random << 13;
        t_random ^= t_random >> 7;
        t_random ^= t_random << 17;
        bytes[i] = static_cast<unsigned char>(t_random >> 24);
    }
    return 1;
}

// From here on this thread draws the same numbers again.
inline void repeatable_random() {
    static const RAND_METHOD method = {nullptr, fill, nullptr, nullptr, fill, [] { return 1; }};
    static const int set = RAND_set_rand_method(&method);
    if (set != 1) abort();
    t_random = 0x9E3779B97F4A7C15u;
}

struct identity {
    EVP_PKEY *key;
    X509 *cert;
};

inline void add_extension(X509 *cert, int nid, const char *value) {
    X509_EXTENSION *extra = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value);
    X509_add_ext(cert, extra, -1);
    X509_EXTENSION_free(extra);
}

// Valid for ages: a stored stream holds it.
inline identity make_identity(const char *name, const identity *issuer) {
    identity made = {EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), X509_new()};
    X509_set_version(made.cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(made.cert), issuer ? 2 : 1);
    ASN1_TIME_set_string(X509_getm_notBefore(made.cert), "20200101000000Z");
    ASN1_TIME_set_string(X509_getm_notAfter(made.cert), "20991231000000Z");
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made.cert), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(name), -1, -1, 0);
    X509_set_issuer_name(made.cert, X509_get_subject_name(issuer ? issuer->cert : made.cert));
    X509_set_pubkey(made.cert, made.key);
    if (issuer)
        add_extension(made.cert, NID_subject_alt_name, "DNS:localhost");
    else
        add_extension(made.cert, NID_basic_constraints, "critical,CA:TRUE");
    if (X509_sign(made.cert, issuer ? issuer->key : made.key, EVP_sha256()) == 0) abort();
    return made;
}

// Made once, on the first use, and kept to the end of the process.
struct identities {
    identity authority = make_identity("authority", nullptr);
    identity server = make_identity("server", &authority);
    identity other_authority = make_identity("authority", nullptr);
    identity stranger = make_identity("server", &other_authority);
    ~identities() {
        for (identity *one : {&authority, &server, &other_authority, &stranger}) {
            X509_free(one->cert);
            EVP_PKEY_free(one->key);
        }
    }
};

inline const identities &all() {
    static const identities made;
    return made;
}

// To be called first, so that the numbers that the identities take are never a connection's.
inline void make_identities() {
    repeatable_random();
    all();
}

// The authority's certificate as a file in memory.
inline const std::string &ca_file() {
    static const std::string path = [] {
        const int fd = memfd_create("authority", MFD_CLOEXEC);
        FILE *out = fd < 0 ? nullptr : fdopen(dup(fd), "w");
        if (!out || PEM_write_X509(out, all().authority.cert) != 1) abort();
        fclose(out);
        return "/proc/self/fd/" + std::to_string(fd);
    }();
    return path;
}

struct damage {
    size_t place;  // in the stream of the server
    uint8_t bits;  // flipped there; none: the stream is whole
};

struct kind {
    bool old;       // speaks TLS 1.0 and 1.1 only
    bool stranger;  // with a certificate of another authority
    bool stalls;    // keeps the connection open in the end
};

// One session over memory, carried to and from the socket.
class session {
  public:
    session(int fd, const kind &k, const damage &harm) : fd_(fd), harm_(harm) {
        const identity &self = k.stranger ? all().stranger : all().server;
        context_ = SSL_CTX_new(TLS_server_method());
        SSL_CTX_set_security_level(context_, 0);
        SSL_CTX_set_min_proto_version(context_, TLS1_VERSION);
        SSL_CTX_set_max_proto_version(context_, k.old ? TLS1_1_VERSION : TLS1_3_VERSION);
        SSL_CTX_use_certificate(context_, self.cert);
        SSL_CTX_use_PrivateKey(context_, self.key);
        ssl_ = SSL_new(context_);
        SSL_set_bio(ssl_, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        SSL_set_accept_state(ssl_);
    }
    ~session() {
        SSL_free(ssl_);
        SSL_CTX_free(context_);
        ERR_clear_error();
    }
    session(const session &) = delete;
    session &operator=(const session &) = delete;

    SSL *get() const { return ssl_; }

    // Sends what the session has to say. @return false once the client is gone.
    bool flush() {
        char buffer[4096];
        int count;
        while ((count = BIO_read(SSL_get_wbio(ssl_), buffer, sizeof buffer)) > 0) {
            const auto bytes = static_cast<size_t>(count);
            if (harm_.place >= sent_ && harm_.place < sent_ + bytes)
                buffer[harm_.place - sent_] = static_cast<char>(
                    static_cast<uint8_t>(buffer[harm_.place - sent_]) ^ harm_.bits);
            sent_ += bytes;
            if (send(fd_, buffer, bytes, MSG_NOSIGNAL) != count) return false;
        }
        return true;
    }
    // Takes what the client has sent, waiting for it. @return false once it is gone.
    bool take() {
        char buffer[4096];
        pollfd watched = {fd_, POLLIN, 0};
        if (poll(&watched, 1, kPatienceMs) != 1) return false;
        const ssize_t count = recv(fd_, buffer, sizeof buffer, 0);
        return count > 0 && BIO_write(SSL_get_rbio(ssl_), buffer, static_cast<int>(count)) == count;
    }

  private:
    static constexpr int kPatienceMs = 20'000;
    int fd_;
    damage harm_;
    size_t sent_ = 0;
    SSL_CTX *context_;
    SSL *ssl_;
};

// Serves one connection and closes its socket: handshake, all answers at once, end of stream; then
// waits until the client is gone.
inline void serve(int fd, const kind &k, const damage &harm, const std::string &answers) {
    repeatable_random();
    session s(fd, k, harm);
    bool there = true, done = false;
    while (there && !done) {
        const int result = SSL_do_handshake(s.get());
        done = result == 1;
        there = s.flush();
        if (!done && SSL_get_error(s.get(), result) != SSL_ERROR_WANT_READ) there = false;
        if (there && !done) there = s.take();
    }
    if (done) {
        SSL_write(s.get(), answers.data(), static_cast<int>(answers.size()));
        if (!k.stalls) SSL_shutdown(s.get());
        s.flush();
    }
    if (!k.stalls) shutdown(fd, SHUT_WR);
    while (s.take()) {
    }
    close(fd);
}

}  // namespace tls_server
