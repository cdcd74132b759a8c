#include "tools/ruv_receiver/tls.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace receiver {
namespace {

constexpr unsigned kKeyBits = 2048;
constexpr long kCertificateSeconds = 3650L * 24 * 3600;

struct key_deleter {
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
    void operator()(X509 *cert) const { X509_free(cert); }
};

/** Signs a certificate for "localhost" with a fresh key; it lives as long as the process. */
bool use_own_certificate(SSL_CTX *context) {
    std::unique_ptr<EVP_PKEY, key_deleter> key(EVP_RSA_gen(kKeyBits));
    std::unique_ptr<X509, key_deleter> cert(X509_new());
    if (!key || !cert) return false;
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), kCertificateSeconds);
    X509_NAME *name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>("localhost"), -1, -1, 0);
    return X509_set_issuer_name(cert.get(), name) == 1 &&
           X509_set_pubkey(cert.get(), key.get()) == 1 &&
           X509_sign(cert.get(), key.get(), EVP_sha256()) > 0 &&
           SSL_CTX_use_certificate(context, cert.get()) == 1 &&
           SSL_CTX_use_PrivateKey(context, key.get()) == 1;
}

bool use_files(SSL_CTX *context, const settings &chosen) {
    return SSL_CTX_use_certificate_chain_file(context, chosen.cert.c_str()) == 1 &&
           SSL_CTX_use_PrivateKey_file(context, chosen.key.c_str(), SSL_FILETYPE_PEM) == 1 &&
           SSL_CTX_check_private_key(context) == 1;
}

int version_number(const std::string &text) {
    if (text == "1.3") return TLS1_3_VERSION;
    if (text == "1.2") return TLS1_2_VERSION;
    return text == "1.1" ? TLS1_1_VERSION : TLS1_VERSION;
}

bool demand_client_certificates(SSL_CTX *context, const std::string &file) {
    STACK_OF(X509_NAME) *names = SSL_load_client_CA_file(file.c_str());
    if (names == nullptr || SSL_CTX_load_verify_locations(context, file.c_str(), nullptr) != 1) {
        sk_X509_NAME_pop_free(names, X509_NAME_free);
        return false;
    }
    SSL_CTX_set_client_CA_list(context, names);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    return true;
}

io_result outcome(SSL *stream, int result) {
    if (result > 0) return {io_state::done, static_cast<size_t>(result)};
    switch (SSL_get_error(stream, result)) {
        case SSL_ERROR_WANT_READ:
            return {io_state::want_read, 0};
        case SSL_ERROR_WANT_WRITE:
            return {io_state::want_write, 0};
        case SSL_ERROR_ZERO_RETURN:
            return {io_state::closed, 0};
        default:
            return {io_state::failed, 0};
    }
}

}  // namespace

void tls_deleter::operator()(SSL *stream) const {
    SSL_free(stream);
}
void tls_deleter::operator()(SSL_CTX *context) const {
    SSL_CTX_free(context);
}

tls_server tls_make_server(const settings &chosen, std::string *error) {
    tls_server context(SSL_CTX_new(TLS_server_method()));
    bool good = context != nullptr;
    if (good) {
        // Clients of the first generation speak TLS 1.0, which the default level refuses.
        SSL_CTX_set_security_level(context.get(), 0);
        // Clients end a stream without the closing message; that is an ordinary end here.
        SSL_CTX_set_options(context.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
        SSL_CTX_set_mode(context.get(),
                         SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
        SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
        good = SSL_CTX_set_min_proto_version(context.get(), version_number(chosen.tls_min)) == 1;
    }
    if (good && !chosen.ciphers.empty())
        good = SSL_CTX_set_cipher_list(context.get(), chosen.ciphers.c_str()) == 1;
    if (good)
        good = chosen.cert.empty() ? use_own_certificate(context.get())
                                   : use_files(context.get(), chosen);
    if (good && !chosen.client_ca.empty())
        good = demand_client_certificates(context.get(), chosen.client_ca);
    if (good) return context;
    *error = tls_last_error();
    return nullptr;
}

tls_stream tls_open(SSL_CTX *server, int fd) {
    tls_stream stream(SSL_new(server));
    if (!stream || SSL_set_fd(stream.get(), fd) != 1) return nullptr;
    SSL_set_accept_state(stream.get());
    return stream;
}

io_result tls_handshake(SSL *stream) {
    ERR_clear_error();
    return outcome(stream, SSL_do_handshake(stream));
}

io_result tls_read(SSL *stream, void *buffer, size_t length) {
    ERR_clear_error();
    return outcome(stream, SSL_read(stream, buffer, static_cast<int>(length)));
}

io_result tls_write(SSL *stream, const void *buffer, size_t length) {
    ERR_clear_error();
    return outcome(stream, SSL_write(stream, buffer, static_cast<int>(length)));
}

bool tls_pending(const SSL *stream) {
    return SSL_has_pending(stream) == 1;
}

std::string tls_describe(const SSL *stream) {
    return std::string(SSL_get_version(stream)) + " " + SSL_get_cipher_name(stream);
}

std::string tls_last_error() {
    char text[256] = "end of stream";
    unsigned long code = ERR_get_error();
    if (code != 0) ERR_error_string_n(code, text, sizeof text);
    ERR_clear_error();
    return text;
}

}  // namespace receiver
