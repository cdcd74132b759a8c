// The TLS 1.0 client method is deprecated and yet the one that Receivers of old speak.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "ruv/transport_tls.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "ruv/error.h"
#include "ruv/tls_reason.h"
#include "ruv/wait.h"

namespace ruv {
namespace {

constexpr int kHandshakeWaits = 1000;      // timed-out waits before a handshake is given up
constexpr int kHandshakeWaitMs = 1;        // length of each
constexpr int kWaitsPerQuestion = 200;     // to the interrupt callback
constexpr size_t kLargestPiece = 1 << 30;  // the TLS library counts in int
constexpr int kDrainedPieces = 64;         // read and dropped before a close
constexpr size_t kShownName = 64;          // of a certificate, in a reason
constexpr size_t kShownDetail = 160;

SSL_CTX *g_context = nullptr;    // process-wide, read-only after library start
BIO_METHOD *g_socket = nullptr;  // the socket BIO below

// Set while further segments of the same unit follow: they leave in one packet with this one.
thread_local bool t_more_follows = false;

// ---- The socket under the TLS stream. The library's own would raise SIGPIPE on a closed peer and
// block in the kernel, out of reach of the interrupt callback.

int socket_write(BIO *bio, const char *bytes, int count) {
    int fd = -1;
    BIO_get_fd(bio, &fd);
    BIO_clear_retry_flags(bio);
    const int flags = MSG_NOSIGNAL | MSG_DONTWAIT | (t_more_follows ? MSG_MORE : 0);
    ssize_t sent;
    do {
        sent = send(fd, bytes, static_cast<size_t>(count), flags);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) BIO_set_retry_write(bio);
    return static_cast<int>(sent);
}

int socket_read(BIO *bio, char *bytes, int count) {
    int fd = -1;
    BIO_get_fd(bio, &fd);
    BIO_clear_retry_flags(bio);
    ssize_t got;
    do {
        got = recv(fd, bytes, static_cast<size_t>(count), MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) BIO_set_retry_read(bio);
    if (got == 0) BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    return static_cast<int>(got);
}

BIO_METHOD *make_socket_method() {
    BIO_METHOD *method = BIO_meth_new(BIO_TYPE_SOCKET, "socket without signals");
    if (method) {
        const BIO_METHOD *base = BIO_s_socket();
        BIO_meth_set_write(method, socket_write);
        BIO_meth_set_read(method, socket_read);
        BIO_meth_set_ctrl(method, BIO_meth_get_ctrl(base));
        BIO_meth_set_create(method, BIO_meth_get_create(base));
        BIO_meth_set_destroy(method, BIO_meth_get_destroy(base));
    }
    return method;
}

// ---- Errors.

// The words for an entry of the library's error queue, which has none for system errors.
const char *reason_text(unsigned long err, const char *otherwise) {
    const char *text = err == 0                ? nullptr
                       : ERR_SYSTEM_ERROR(err) ? strerror(ERR_GET_REASON(err))
                                               : ERR_reason_error_string(err);
    return text ? text : otherwise;
}

// What a refusal means and what mends it, by the verdict on a certificate and by the library's
// reason. Others speak for themselves.
struct hint {
    int code;
    const char *text;
};

constexpr const char *kUnknownAuthority =
    "whoever signed it is not among the trusted certificates; add that authority if it is yours";
constexpr hint kVerdictHints[] = {
    {X509_V_ERR_CERT_HAS_EXPIRED, "it has to be renewed, unless the clock here is wrong"},
    {X509_V_ERR_CERT_NOT_YET_VALID, "compare the clocks of the two hosts"},
    {X509_V_ERR_HOSTNAME_MISMATCH, "expect one of the names that it carries, or replace it"},
    {X509_V_ERR_IP_ADDRESS_MISMATCH, "expect one of the names that it carries, or replace it"},
    {X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT, kUnknownAuthority},
    {X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN, kUnknownAuthority},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT, kUnknownAuthority},
    {X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, kUnknownAuthority},
    {X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE, kUnknownAuthority},
};

constexpr const char *kOlderOnly = "the Receiver offers only TLS versions below the lowest allowed";
constexpr const char *kOwnRefused =
    "the Receiver refuses the client certificate; it must be valid and signed by one that it "
    "trusts";
constexpr hint kReasonHints[] = {
    {SSL_R_TLSV1_ALERT_PROTOCOL_VERSION, kOlderOnly},
    {SSL_R_UNSUPPORTED_PROTOCOL, kOlderOnly},
    {SSL_R_WRONG_VERSION_NUMBER, "what listens there does not speak TLS"},
    {SSL_R_TLSV1_ALERT_UNKNOWN_CA, kOwnRefused},
    {SSL_R_SSLV3_ALERT_BAD_CERTIFICATE, kOwnRefused},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED, kOwnRefused},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED, kOwnRefused},
    {SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN, kOwnRefused},
};

template <size_t N>
const char *hint_of(const hint (&table)[N], int code) {
    for (const hint &row : table)
        if (row.code == code) return row.text;
    return nullptr;
}

// ---- What a certificate says of itself, shortened and made printable.

void append_text(char *out, size_t size, const ASN1_STRING *text) {
    const int length = ASN1_STRING_length(text);
    tls_append_foreign(out, size, ASN1_STRING_get0_data(text), static_cast<size_t>(length));
}

void append_common_name(char *out, size_t size, const X509_NAME *name) {
    const int at = X509_NAME_get_index_by_NID(name, NID_commonName, -1);
    if (at >= 0)
        append_text(out, size, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at)));
    else
        tls_append_foreign(out, size, "unnamed", 7);
}

void append_address(char *out, size_t size, const ASN1_OCTET_STRING *address) {
    char text[INET6_ADDRSTRLEN] = "?";
    const int length = ASN1_STRING_length(address);
    if (length == 4 || length == 16)
        inet_ntop(length == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(address), text,
                  sizeof text);
    tls_append_foreign(out, size, text, strlen(text));
}

// The names and addresses that a host may be expected by.
void append_host_names(char *out, size_t size, X509 *cert) {
    auto *names = static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
    const size_t before = strlen(out);
    for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME *name = sk_GENERAL_NAME_value(names, i);
        if (name->type != GEN_DNS && name->type != GEN_IPADD) continue;
        if (strlen(out) > before) tls_append_foreign(out, size, ", ", 2);
        if (name->type == GEN_DNS)
            append_text(out, size, name->d.dNSName);
        else
            append_address(out, size, name->d.iPAddress);
    }
    GENERAL_NAMES_free(names);
    if (strlen(out) == before) append_common_name(out, size, X509_get_subject_name(cert));
}

void append_time(char *out, size_t size, const ASN1_TIME *time) {
    tm when = {};
    char text[64] = "?";
    if (ASN1_TIME_to_tm(time, &when) == 1) strftime(text, sizeof text, "%F %T UTC", &when);
    tls_append_foreign(out, size, text, strlen(text));
}

// What there is to know about the certificate that caused the verdict.
void describe_certificate(const RUVConn *conn, int verdict, X509 *cert, char *out, size_t size) {
    if (verdict == X509_V_ERR_HOSTNAME_MISMATCH || verdict == X509_V_ERR_IP_ADDRESS_MISMATCH) {
        char expected[kShownName] = "";
        tls_append_foreign(expected, sizeof expected, conn->tls_name, strlen(conn->tls_name));
        snprintf(out, size, "expected %s, offered ", expected);
        return append_host_names(out, size, cert);
    }
    char subject[kShownName] = "";
    append_common_name(subject, sizeof subject, X509_get_subject_name(cert));
    const bool expired = verdict == X509_V_ERR_CERT_HAS_EXPIRED;
    if (expired || verdict == X509_V_ERR_CERT_NOT_YET_VALID) {
        snprintf(out, size, "%s, valid %s ", subject, expired ? "until" : "from");
        return append_time(out, size,
                           expired ? X509_get0_notAfter(cert) : X509_get0_notBefore(cert));
    }
    snprintf(out, size, "%s, signed by ", subject);
    append_common_name(out, size, X509_get_issuer_name(cert));
}

// Called for each certificate of the peer's chain; changes no verdict.
int look_at_certificate(int accepted, X509_STORE_CTX *chain) {
    if (accepted) return accepted;
    auto *session =
        static_cast<SSL *>(X509_STORE_CTX_get_ex_data(chain, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto *conn = static_cast<RUVConn *>(SSL_get_app_data(session));
    const int verdict = X509_STORE_CTX_get_error(chain);
    const char *hint = hint_of(kVerdictHints, verdict);
    char detail[kShownDetail] = "";
    ERR_set_mark();
    if (X509 *cert = X509_STORE_CTX_get_current_cert(chain))
        describe_certificate(conn, verdict, cert, detail, sizeof detail);
    ERR_pop_to_mark();
    tls_note(conn, "the Receiver's certificate: %s (%s)%s%s",
             X509_verify_cert_error_string(verdict), detail, hint ? "; " : "", hint ? hint : "");
    return accepted;
}

// Why the last operation failed, in words, for a handle that checks its peer. What is wrong with
// the peer's certificate was noted when it was looked at.
void note_reason(RUVConn *conn, unsigned long err) {
    if (!conn->tls_opted || conn->tls_reason[0]) return;
    const char *reason = reason_text(err, "connection closed");
    const char *more =
        ERR_GET_LIB(err) == ERR_LIB_SSL ? hint_of(kReasonHints, ERR_GET_REASON(err)) : nullptr;
    if (conn->tls_cert_wanted)
        tls_note(conn,
                 "the Receiver asks for a client certificate and none is set (%s); set one with "
                 "its key",
                 reason);
    else
        tls_note(conn, "%s%s%s%s", more ? more : "", more ? " (" : "", reason, more ? ")" : "");
}

int fail_session(RUVConn *conn, int ret, int ssl_error, int saved_errno) {
    const unsigned long err = ERR_get_error();
    note_reason(conn, err);
    fail_tls(ret, ssl_error, static_cast<int>(err));
    errno = saved_errno;
    return -1;
}

// ---- Handshake.

// Waits for what the session wants. @return 0, or -1 with errors 3 or 4.
int wait_session(RUVConn *conn, int ssl_error) {
    const short events = ssl_error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
    const int64_t left = time_left(conn);
    if (left == 0) return fail(4);
    const int ready = wait_for(conn, events, left);
    if (ready < 0) return fail_system(errno);
    return ready == 0 ? fail(4) : 0;
}

// The default handshake: short waits for the socket to become readable, counted when they time
// out. @return 0 to try again, or -1 with error 3 or 19.
int wait_counted(RUVConn *conn, bool *armed, int *waits) {
    // Kept: the set of watched descriptors is not rebuilt between waits, so after the first wait
    // that times out the rest are plain pauses; a handshake's longest time depends on it.
    const int ready = wait_for(conn, *armed ? POLLIN : 0, kHandshakeWaitMs);
    if (ready < 0) return fail_system(errno);
    if (ready != 0) return 0;
    *armed = false;
    if (++*waits >= kHandshakeWaits) return fail(19);
    if (*waits % kWaitsPerQuestion == 0 && stop_requested(conn)) return fail_system(EINTR);
    return 0;
}

int handshake(RUVConn *conn) {
    bool armed = true;
    int waits = 0;
    const int64_t own_end = now_ms() + os.own_handshake_ms;
    for (;;) {
        ERR_clear_error();
        const int ret = SSL_connect(conn->ssl_conn);
        if (ret == 1) return 0;
        const int saved = errno;
        const int ssl_error = SSL_get_error(conn->ssl_conn, ret);
        if (ssl_error != SSL_ERROR_WANT_READ && ssl_error != SSL_ERROR_WANT_WRITE &&
            ssl_error != SSL_ERROR_WANT_CONNECT)
            return fail_session(conn, ret, ssl_error, saved);
        if (!conn->tls_opted) {
            if (wait_counted(conn, &armed, &waits) != 0) return -1;
            continue;
        }
        const short events = ssl_error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN;
        const int ready = wait_for(conn, events, std::max<int64_t>(0, own_end - now_ms()));
        if (ready < 0) return fail_system(errno);
        if (ready == 0) return fail(19);
    }
}

int begin_session(RUVConn *conn) {
    conn->tls_reason[0] = 0;
    conn->tls_cert_wanted = 0;
    SSL_CTX *context = conn->tls_opted ? conn->tls_ctx : g_context;
    if (!context) return fail(5);
    conn->ssl_conn = SSL_new(context);
    BIO *bio = g_socket ? BIO_new(g_socket) : nullptr;
    if (!conn->ssl_conn || !bio) {
        BIO_free(bio);
        return fail(20);
    }
    BIO_set_fd(bio, conn->skt, BIO_NOCLOSE);
    SSL_set_bio(conn->ssl_conn, bio, bio);
    if (!conn->tls_opted) return 0;
    in6_addr address;
    const bool by_address = inet_pton(AF_INET, conn->tls_name, &address) == 1 ||
                            inet_pton(AF_INET6, conn->tls_name, &address) == 1;
    SSL_set_app_data(conn->ssl_conn, conn);
    if (by_address)
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(conn->ssl_conn), conn->tls_name) == 1
                   ? 0
                   : fail(20);
    if (SSL_set1_host(conn->ssl_conn, conn->tls_name) != 1 ||
        SSL_set_tlsext_host_name(conn->ssl_conn, conn->tls_name) != 1)
        return fail(20);
    return 0;
}

int note_certificate_request(SSL *session, X509 **, EVP_PKEY **) {
    static_cast<RUVConn *>(SSL_get_app_data(session))->tls_cert_wanted = 1;
    return 0;
}

bool is_set(const char *text) {
    return text && *text;
}

// ---- Library start and end. A static object and not a destructor function: its end must run
// before the TLS library's own clean-up, which was registered earlier.

struct library {
    library() { tls_start(); }
    ~library() { tls_end(); }
} g_library;

}  // namespace

void tls_start() {
    SSL_library_init();
    SSL_load_error_strings();
    g_context = SSL_CTX_new(TLSv1_client_method());
    g_socket = make_socket_method();
    if (g_context) {
        SSL_CTX_set_quiet_shutdown(g_context, 1);
        // The library's default level refuses the signatures that TLS 1.0 is made of.
        SSL_CTX_set_security_level(g_context, 0);
    }
    setservent(1);
    setprotoent(1);
}

void tls_end() {
    SSL_CTX_free(g_context);
    g_context = nullptr;
    BIO_meth_free(g_socket);
    g_socket = nullptr;
    endservent();
    endprotoent();
}

bool tls_ready() {
    return g_context != nullptr;
}

int tls_connect(RUVConn *conn) {
    if (begin_session(conn) == 0 && handshake(conn) == 0) return 0;
    const int saved = errno;
    SSL_free(conn->ssl_conn);
    conn->ssl_conn = nullptr;
    errno = saved;
    return -1;
}

namespace {

// Both directions are one loop around the library's call.
template <class Call>
int move_segment(RUVConn *conn, iovec *segment, Call call) {
    while (segment->iov_len > 0) {
        ERR_clear_error();
        const int piece = static_cast<int>(std::min(segment->iov_len, kLargestPiece));
        const int ret = call(conn->ssl_conn, segment->iov_base, piece);
        if (ret >= 1) {
            segment->iov_base = static_cast<char *>(segment->iov_base) + ret;
            segment->iov_len -= static_cast<size_t>(ret);
            if (conn->io_stall_ms) conn->io_deadline_ms = now_ms() + conn->io_stall_ms;
            continue;
        }
        const int saved = errno;
        const int ssl_error = SSL_get_error(conn->ssl_conn, ret);
        if (ssl_error != SSL_ERROR_WANT_READ && ssl_error != SSL_ERROR_WANT_WRITE)
            return fail_session(conn, ret, ssl_error, saved);
        if (wait_session(conn, ssl_error) != 0) return -1;
    }
    return 1;
}

}  // namespace

int tls_write_segment(RUVConn *conn, iovec *segment, bool more_follows) {
    t_more_follows = more_follows;
    const int result = move_segment(conn, segment, SSL_write);
    t_more_follows = false;
    return result;
}

int tls_read_segment(RUVConn *conn, iovec *segment) {
    return move_segment(conn, segment, SSL_read);
}

bool tls_pending(const RUVConn *conn) {
    return SSL_pending(conn->ssl_conn) > 0;
}

bool tls_ended(const RUVConn *conn) {
    return (SSL_get_shutdown(conn->ssl_conn) & SSL_RECEIVED_SHUTDOWN) != 0;
}

int tls_check_peer(RUVConn *conn) {
    char byte;
    ERR_clear_error();
    const int ret = SSL_peek(conn->ssl_conn, &byte, 1);
    if (ret > 0) return 0;
    const int saved = errno;
    const int ssl_error = SSL_get_error(conn->ssl_conn, ret);
    if (ssl_error == SSL_ERROR_WANT_READ || ssl_error == SSL_ERROR_WANT_WRITE) return 0;
    if (ssl_error == SSL_ERROR_ZERO_RETURN) return fail_system(EPIPE);
    return fail_session(conn, ret, ssl_error, saved);
}

void tls_close(RUVConn *conn) {
    if (!conn->ssl_conn) return;
    // Session tickets that were never read would make the kernel answer the close with a reset,
    // and a reset throws away what the peer has not read yet.
    char dropped[4096];
    for (int i = 0; i < kDrainedPieces && conn->tls_opted; ++i)
        if (SSL_read(conn->ssl_conn, dropped, sizeof dropped) < 1) break;
    SSL_shutdown(conn->ssl_conn);
    SSL_free(conn->ssl_conn);
    conn->ssl_conn = nullptr;
    ERR_clear_error();
}

namespace {

constexpr const char *kCertificate = "certificate";

// Without it the library would ask at the terminal, and wait there. `asked`: a bool, or null.
int refuse_pass_phrase(char *, int, int, void *asked) {
    if (asked) *static_cast<bool *>(asked) = true;
    return -1;
}

int fail_file(RUVConn *conn, const tls_file &file) {
    const unsigned long err = ERR_get_error();
    tls_note_file(conn, file, reason_text(err, "not usable"));
    return fail_tls(0, 0, static_cast<int>(err));
}

// The key must belong to the certificate that the context already has.
int load_key(RUVConn *conn, const tls_file &key, const char *cert_path) {
    bool locked = false;
    BIO *file = BIO_new_file(key.path, "r");
    EVP_PKEY *read =
        file ? PEM_read_bio_PrivateKey(file, nullptr, refuse_pass_phrase, &locked) : nullptr;
    BIO_free(file);
    if (!read && !locked) return fail_file(conn, key);
    const bool used = read &&
                      X509_check_private_key(SSL_CTX_get0_certificate(conn->tls_ctx), read) &&
                      SSL_CTX_use_PrivateKey(conn->tls_ctx, read) == 1;
    EVP_PKEY_free(read);
    if (used) return 0;
    const unsigned long err = ERR_get_error();
    if (locked)
        tls_note_locked(conn, key);
    else
        tls_note_mismatch(conn, key, cert_path, reason_text(err, "not usable"));
    return fail_tls(0, 0, static_cast<int>(err));
}

}  // namespace

int tls_set_options(RUVConn *conn, const char *min_version, const char *ca_file,
                    const char *cert_file, const char *key_file) {
    const bool only_13 = is_set(min_version) && strcmp(min_version, "1.3") == 0;
    if (is_set(min_version) && !only_13 && strcmp(min_version, "1.2") != 0) return fail(2, 2);
    if (is_set(key_file) && !is_set(cert_file)) return fail(2, 5);
    ERR_clear_error();
    conn->tls_ctx = SSL_CTX_new(TLS_client_method());
    SSL_CTX *context = conn->tls_ctx;
    if (!context) return fail(20);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, look_at_certificate);
    SSL_CTX_set_default_passwd_cb(context, refuse_pass_phrase);
    if (SSL_CTX_set_min_proto_version(context, only_13 ? TLS1_3_VERSION : TLS1_2_VERSION) != 1)
        return fail(20);
    if (is_set(ca_file) ? SSL_CTX_load_verify_file(context, ca_file) != 1
                        : SSL_CTX_set_default_verify_paths(context) != 1)
        return fail_file(conn,
                         {"trusted certificates", is_set(ca_file) ? ca_file : "", kCertificate});
    if (!is_set(cert_file)) {
        SSL_CTX_set_client_cert_cb(context, note_certificate_request);
        return 0;
    }
    if (SSL_CTX_use_certificate_chain_file(context, cert_file) != 1)
        return fail_file(conn, {"client certificate", cert_file, kCertificate});
    return load_key(conn, {"client key", is_set(key_file) ? key_file : cert_file, "private key"},
                    cert_file);
}

void tls_free_options(RUVConn *conn) {
    SSL_CTX_free(conn->tls_ctx);
    conn->tls_ctx = nullptr;
}

}  // namespace ruv
