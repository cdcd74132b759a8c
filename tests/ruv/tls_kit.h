#pragma once
// A TLS front for scripted Receivers, and certificates made on the spot.
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <csignal>
#include <filesystem>
#include <utility>

#include "tests/ruv/link_kit.h"

namespace tls {

struct identity {
    EVP_PKEY *key = nullptr;
    X509 *cert = nullptr;
};

inline X509_EXTENSION *extension(int nid, const std::string &value) {
    return X509V3_EXT_conf_nid(nullptr, nullptr, nid, value.c_str());
}

// A certificate for `names` (a subjectAltName value; empty for an authority), signed by `issuer`
// or by itself. Valid from `from` to `to` days from now.
inline identity make_identity(const std::string &common_name, const std::string &names,
                              const identity *issuer, int from = -1, int to = 30) {
    identity made;
    made.key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
    made.cert = X509_new();
    X509_set_version(made.cert, 2);
    static long serial = 1;
    ASN1_INTEGER_set(X509_get_serialNumber(made.cert), serial++);
    X509_gmtime_adj(X509_getm_notBefore(made.cert), from * 86'400L);
    X509_gmtime_adj(X509_getm_notAfter(made.cert), to * 86'400L);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(made.cert), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char *>(common_name.c_str()), -1, -1,
                               0);
    X509_set_issuer_name(made.cert, X509_get_subject_name(issuer ? issuer->cert : made.cert));
    X509_set_pubkey(made.cert, made.key);
    X509_EXTENSION *extra = names.empty() ? extension(NID_basic_constraints, "critical,CA:TRUE")
                                          : extension(NID_subject_alt_name, names);
    X509_add_ext(made.cert, extra, -1);
    X509_EXTENSION_free(extra);
    X509_sign(made.cert, issuer ? issuer->key : made.key, EVP_sha256());
    return made;
}

// All identities of the tests, as files in a directory of their own.
class identities {
  public:
    identities() {
        char name[] = "/tmp/ruv_tls_XXXXXX";
        directory_ = mkdtemp(name);
        authority = make_identity("test authority", "", nullptr);
        server = make_identity("server", "DNS:localhost,IP:127.0.0.1", &authority);
        wrong_name = make_identity("other", "DNS:other.example,IP:10.0.0.1", &authority);
        expired = make_identity("server", "DNS:localhost,IP:127.0.0.1", &authority, -30, -1);
        stranger = make_identity("server", "DNS:localhost,IP:127.0.0.1", nullptr);
        client = make_identity("client", "DNS:client", &authority);
        save("ca.pem", authority.cert, nullptr);
        save("client.pem", client.cert, nullptr);
        save("client.key", nullptr, client.key);
        save("both.pem", client.cert, client.key);
        save("server.key", nullptr, server.key);
    }
    ~identities() {
        for (identity *one : {&authority, &server, &wrong_name, &expired, &stranger, &client}) {
            X509_free(one->cert);
            EVP_PKEY_free(one->key);
        }
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    std::string file(const std::string &name) const { return directory_ + "/" + name; }

    identity authority, server, wrong_name, expired, stranger, client;

  private:
    void save(const std::string &name, X509 *cert, EVP_PKEY *key) {
        FILE *out = fopen(file(name).c_str(), "w");
        ASSERT_NE(out, nullptr);
        if (cert) PEM_write_X509(out, cert);
        if (key) PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
        fclose(out);
    }
    std::string directory_;
};

struct server_options {
    const identity *self = nullptr;
    int min_version = TLS1_VERSION, max_version = TLS1_3_VERSION;
    const identity *client_authority = nullptr;  // set: a client certificate is required
    bool lingers = false;  // ends the session, then waits for the client to close the connection
};

// What the front saw. Lives as long as the test.
struct server_log {
    std::atomic<int> handshakes{0}, failures{0}, clean_closes{0};
    std::atomic<int> version{0};

    // Lengths of the TLS records that carried data; one read never returns more than one's.
    void add_record(int length) {
        const std::lock_guard<std::mutex> guard(lock);
        records.push_back(length);
    }
    std::vector<int> take_records() {
        const std::lock_guard<std::mutex> guard(lock);
        return std::exchange(records, {});
    }

  private:
    std::mutex lock;
    std::vector<int> records;
};

inline SSL_CTX *make_context(const server_options &options) {
    SSL_CTX *context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_security_level(context, 0);
    SSL_CTX_set_min_proto_version(context, options.min_version);
    SSL_CTX_set_max_proto_version(context, options.max_version);
    SSL_CTX_use_certificate(context, options.self->cert);
    SSL_CTX_use_PrivateKey(context, options.self->key);
    if (options.client_authority) {
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        X509_STORE_add_cert(SSL_CTX_get_cert_store(context), options.client_authority->cert);
    }
    return context;
}

// Carries bytes between the session and `inner` until one of them ends.
inline void pump(SSL *session, int inner, server_log *log) {
    char buffer[20'000];
    for (;;) {
        pollfd watched[2] = {{SSL_get_fd(session), POLLIN, 0}, {inner, POLLIN, 0}};
        if (SSL_pending(session) == 0 && poll(watched, 2, -1) < 0) return;
        if (SSL_pending(session) > 0 || watched[0].revents) {
            const int got = SSL_read(session, buffer, sizeof buffer);
            if (got <= 0) {
                if (SSL_get_error(session, got) == SSL_ERROR_ZERO_RETURN) ++log->clean_closes;
                return;
            }
            log->add_record(got);
            ::send(inner, buffer, static_cast<size_t>(got), MSG_NOSIGNAL);
        }
        if (watched[1].revents) {
            const ssize_t got = recv(inner, buffer, sizeof buffer, MSG_DONTWAIT);
            if (got == 0) {
                SSL_shutdown(session);
                return;
            }
            if (got > 0 && SSL_write(session, buffer, static_cast<int>(got)) <= 0) return;
        }
    }
}

// Runs `script` behind TLS on the peer's connection.
inline void front(fake::peer &p, const server_options &options, server_log *log,
                  const fake::receiver::script &script) {
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
    const int at_once = 1;
    setsockopt(p.fd(), IPPROTO_TCP, TCP_NODELAY, &at_once, sizeof at_once);
    SSL_CTX *context = make_context(options);
    SSL *session = SSL_new(context);
    SSL_set_fd(session, p.fd());
    if (SSL_accept(session) == 1) {
        ++log->handshakes;
        log->version = SSL_version(session);
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
            std::thread inner([&] {
                std::mutex lock;
                std::string transcript;
                fake::peer q(fds[1], &lock, &transcript);
                script(q);
                shutdown(fds[1], SHUT_RDWR);
            });
            pump(session, fds[0], log);
            if (options.lingers) p.drain();
            shutdown(fds[0], SHUT_RDWR);
            inner.join();
            ::close(fds[0]);
            ::close(fds[1]);
        }
    } else {
        ++log->failures;
    }
    ERR_clear_error();
    SSL_free(session);
    SSL_CTX_free(context);
}

inline fake::receiver::script over_tls(server_options options, server_log *log,
                                       fake::receiver::script script) {
    return [=](fake::peer &p) { front(p, options, log, script); };
}

// Plain until a request for TLS, which it grants.
inline fake::receiver::script on_request(server_options options, server_log *log,
                                         fake::receiver::script script) {
    return [=](fake::peer &p) {
        for (;;) {
            const fake::header h = fake::read_header(p);
            if (!h.valid || h.type != 0 || (h.version != 0 && h.version != 1 && h.version != 2))
                return;
            p.send(fake::kOkay);
            if (h.version == 2) p.send(fake::version_list(fake::version6{}.versions));
            if (h.version == 1) return front(p, options, log, script);
        }
    };
}

}  // namespace tls
