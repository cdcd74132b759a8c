// The life of a connection handle: allocating, opening, turning TLS on, closing and freeing it, and
// the settings that are additions (interrupt, TLS options, peer check).
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ruv/catalogue.h"
#include "ruv/channel.h"
#include "ruv/conn.h"
#include "ruv/error.h"
#include "ruv/group.h"
#include "ruv/request.h"
#include "ruv/trace.h"
#include "ruv/transport.h"
#include "ruv/transport_tls.h"
#include "ruv/wait.h"

namespace {

using ruv::fail;
using ruv::fail_null;

constexpr int kProbeAttempts = 2;
constexpr int32_t kMostVersions = 65'536;  // entries of a version list; real ones have dozens
constexpr int kVersionsPerRead = 64;
constexpr int kUpTo5Columns = 5;        // protocol versions 1 to 5
constexpr uint16_t kUpTo5Types = 0x1E;  // Alert, Flow, Syslog, Windows events

// The callback that handles of this thread start with (RUVSetInterrupt without a handle): a
// handle resolves, and may wait, before its owner holds it.
thread_local int (*t_stopping)(void *) = nullptr;
thread_local void *t_stopping_arg = nullptr;

// ---- Probe.

// What an attempt of the probe came to.
enum class probe { version6, silent, failed };

// Reads the NOP's answer within what is left of the budget. Only an interrupted wait and a failing
// poll end the open: no answer, a wrong one and a closed stream all mean "not version 6 here".
probe await_answer(RUVConn *conn, int64_t *budget_ms) {
    const int64_t start = ruv::now_ms();
    const int ready = libruv_wait_readable(conn, static_cast<int>(*budget_ms));
    probe result = probe::silent;
    if (ready < 0) {
        result = probe::failed;
    } else if (ready > 0) {
        conn->io_deadline_ms = start + *budget_ms;
        if (libruv_rqstinfo_check_result(conn) == 0)
            result = probe::version6;
        else if ((ruverrno == 3 && ruverrno2 == EINTR) || (conn->tls_opted && ruverrno == 6))
            result = probe::failed;
        conn->io_deadline_ms = 0;
    }
    const int64_t used = ready == 0 ? *budget_ms : ruv::now_ms() - start;
    *budget_ms = used < *budget_ms ? *budget_ms - used : 0;
    return result;
}

// Connects and asks. A silent peer's connection is closed.
probe probe_once(RUVConn *conn, int ssl_on, int64_t *budget_ms) {
    if (libruv_connect(conn, ssl_on) != 0)
        return ssl_on && ruverrno == 19 && !conn->tls_opted ? probe::silent : probe::failed;
    if (libruv_send_rqstinfo(conn, kNop, 0, 0) < 0) return probe::failed;
    const probe result = await_answer(conn, budget_ms);
    if (result == probe::silent) RUVClose(conn);
    return result;
}

// Finds the generation, leaving a version-6 connection open. @return 0, or -1 with the error.
int detect_generation(RUVConn *conn) {
    int ssl_on = conn->force_ssl == kSslRequired;
    int64_t budget_ms = ruv::os.probe_budget_ms;
    for (int attempt = 0; attempt < kProbeAttempts; ++attempt) {
        const probe result = probe_once(conn, ssl_on, &budget_ms);
        if (result == probe::failed) return -1;
        if (result == probe::version6) {
            conn->ruv_ver = kVersion6;
            return 0;
        }
        // A handle that demanded authenticated TLS must never be talked into a plain stream.
        if (ssl_on && conn->tls_opted) break;
        ssl_on = !ssl_on;
    }
    conn->ruv_ver = kUpTo5;
    return 0;
}

// ---- The steps after the probe.

// Compares what was found with what was asked for. @return 0, or -1 with error 7.
int check_encryption(RUVConn *conn) {
    if (conn->ruv_ver == kVersion6 && conn->ruv_ver_req == kUpTo5) {
        if (conn->force_ssl == kSslRequest) return fail(7);
        conn->ruv_ver = kUpTo5;
    }
    const bool encrypted = conn->ssl_conn != nullptr;
    return encrypted == (conn->force_ssl == kSslRequired) ? 0 : fail(7);
}

void assume_versions_up_to_5(RUVConn *conn) {
    conn->data_types = kUpTo5Types;
    memset(conn->data_versions, 0, sizeof conn->data_versions);
    // Kept: the Windows events' row stays empty although their type is accepted.
    for (int type = kAlert; type <= kSyslog; ++type)
        for (int column = 0; column < kUpTo5Columns; ++column)
            conn->data_versions[type][column] = 1;
}

// Entries outside the table are skipped; type versions beyond the mask have no bit to set.
void note_version(const RUV_Rsp_VerInfo_t &entry, uint16_t *types,
                  uint16_t (*versions)[kProtocolVersions]) {
    if (entry.ruv_ver < 1 || entry.ruv_ver > kProtocolVersions || entry.ruv_type >= kDataTypes)
        return;
    *types = static_cast<uint16_t>(*types | 1u << entry.ruv_type);
    uint16_t &mask = versions[entry.ruv_type][entry.ruv_ver - 1];
    if (entry.ruv_type_ver < 16) mask = static_cast<uint16_t>(mask | 1u << entry.ruv_type_ver);
}

// @return 0 with the tables replaced, or -1 with the error and the tables as they were.
int learn_versions(RUVConn *conn) {
    int32_t count = 0;
    if (libruv_ask(conn, kReqDataVers, 0, 0) != 0 ||
        libruv_read_exact(conn, &count, sizeof count) != 0)
        return -1;
    if (count < 0 || count > kMostVersions) return fail(1);
    uint16_t types = 0;
    uint16_t versions[kDataTypes][kProtocolVersions] = {};
    RUV_Rsp_VerInfo_t entries[kVersionsPerRead];
    while (count > 0) {
        const int32_t part = count < kVersionsPerRead ? count : kVersionsPerRead;
        if (libruv_read_exact(conn, entries, static_cast<size_t>(part) * sizeof *entries) != 0)
            return -1;
        for (int32_t i = 0; i < part; ++i) note_version(entries[i], &types, versions);
        count -= part;
    }
    conn->data_types = types;
    static_assert(sizeof versions == sizeof conn->data_versions);
    memcpy(conn->data_versions, versions, sizeof versions);
    return 0;
}

int enable_ssl(RUVConn *conn) {
    if (conn->skt == -1) return fail(22);
    if (conn->ssl_conn) return fail(9);
    if (conn->ruv_ver < kVersion6) return fail(8);
    if (libruv_ask(conn, kReqSSL, 0, 0) != 0) return -1;
    if (libruv_ssl_connect(conn) != 0) {
        // After a failed handshake nothing may follow in plain text.
        if (conn->tls_opted) RUVClose(conn);
        return -1;
    }
    conn->force_ssl = kSslRequest;
    return 0;
}

// Everything that an open does on an unconnected handle; the caller closes after a failure.
int establish(RUVConn *conn) {
    if (conn->tls_opted && !conn->tls_ctx) return fail(5);
    if (conn->ruv_ver == kUpTo5) return libruv_connect(conn, conn->force_ssl);
    if (detect_generation(conn) != 0) return -1;
    if (conn->ruv_ver == kUpTo5) {
        if (conn->ruv_ver_req == kVersion6) return fail(8);
        if (libruv_connect(conn, conn->force_ssl) != 0) return -1;
    }
    if (check_encryption(conn) != 0) return -1;
    if (conn->force_ssl == kSslRequest && RUVEnableSSL(conn) != 0) return -1;
    if (conn->ruv_ver == kUpTo5)
        assume_versions_up_to_5(conn);
    else if (learn_versions(conn) != 0)
        return -1;
    if (libruv_understands(conn, kGetCustomFieldFile) && libruv_request_custom_fields(conn) != 0)
        return -1;
    if (conn->ruv_ver > kUpTo5) libruv_clear_channels(conn);
    return 0;
}

// ---- Handles.

int check_arguments(const char *host, int port, int ipv4_or_v6, int force_ssl, int ruv_ver_req) {
    if (!ruv::tls_ready()) return fail(5);
    if (!host) return fail(2, 1);
    if (port < 1 || port > 65535) return fail(2, 2);
    const int modes[] = {ipv4_or_v6, force_ssl, ruv_ver_req};
    for (int i = 0; i < 3; ++i)
        if (modes[i] < 0 || modes[i] > 2) return fail(2, 3 + i);
    return 0;
}

// Closes the socket, if open, and drops what a group has queued.
void close_conn(RUVConn *conn) {
    libruv_disconnect(conn);
    conn->group.open = 0;
    conn->group.used = 0;
}

int open_conn(RUVConn *conn) {
    if (conn->skt != -1) return fail(21);
    if (establish(conn) == 0) return 0;
    RUVClose(conn);
    return -1;
}

// Frees an unconnected handle.
void free_conn(RUVConn *conn) {
    const int saved = errno;
    libruv_free_channels(conn);
    libruv_free_catalogue(&conn->cfi);
    libruv_group_free(conn);
    ruv::tls_free_options(conn);
    free(conn->tls_name);
    free(conn->host);
    free(conn);
    errno = saved;
}

RUVConn *alloc_conn(const char *host, int port, int ipv4_or_v6, int force_ssl, int ruv_ver_req) {
    if (check_arguments(host, port, ipv4_or_v6, force_ssl, ruv_ver_req) != 0) return nullptr;
    auto *conn = static_cast<RUVConn *>(calloc(1, sizeof(RUVConn)));
    if (!conn) return fail_null(1);
    conn->skt = -1;
    conn->host = strdup(host);
    conn->cid.known = static_cast<uint32_t *>(calloc(1, sizeof(uint32_t)));
    if (!conn->host || !conn->cid.known) {
        free_conn(conn);
        return fail_null(1);
    }
    conn->cid.known_words = 1;
    conn->port = port;
    conn->ipv4_or_v6 = ipv4_or_v6;
    conn->force_ssl = force_ssl;
    conn->ruv_ver_req = ruv_ver_req;
    conn->stopping = t_stopping;
    conn->stopping_arg = t_stopping_arg;
    if (libruv_resolve(conn) == 0) return conn;
    free_conn(conn);
    return nullptr;
}

int set_interrupt(RUVConn *conn, int (*stopping)(void *), void *arg) {
    (conn ? conn->stopping : t_stopping) = stopping;
    (conn ? conn->stopping_arg : t_stopping_arg) = arg;
    return 0;
}

int set_tls_options(RUVConn *conn, const char *min_version, const char *ca_file,
                    const char *peer_name, const char *cert_file, const char *key_file) {
    if (!conn) return fail(2, 1);
    // From here on a failure leaves the demand without a context, which no open satisfies.
    conn->tls_opted = 1;
    conn->tls_reason[0] = 0;
    if (conn->force_ssl == kSslNone) conn->force_ssl = kSslRequired;
    ruv::tls_free_options(conn);
    free(conn->tls_name);
    conn->tls_name = strdup(peer_name && *peer_name ? peer_name : conn->host);
    if (!conn->tls_name) return fail(1);
    if (ruv::tls_set_options(conn, min_version, ca_file, cert_file, key_file) == 0) return 0;
    ruv::tls_free_options(conn);
    return -1;
}

}  // namespace

RUVConn *RUVAllocConn(const char *host, int port, int ipv4_or_v6, int force_ssl, int ruv_ver_req) {
    return ruv::traced("RUVAllocConn",
                       [&] { return alloc_conn(host, port, ipv4_or_v6, force_ssl, ruv_ver_req); });
}

int RUVOpen(RUVConn *conn) {
    return ruv::traced("RUVOpen", [&] { return conn ? open_conn(conn) : fail(2, 1); });
}

int RUVEnableSSL(RUVConn *conn) {
    return ruv::traced("RUVEnableSSL", [&] { return conn ? enable_ssl(conn) : fail(2, 1); });
}

void RUVClose(RUVConn *conn) {
    ruv::traced("RUVClose", [&] {
        if (!conn) return fail(2, 1);
        close_conn(conn);
        return 0;
    });
}

void RUVFreeConn(RUVConn *conn) {
    ruv::traced("RUVFreeConn", [&] {
        if (!conn) return fail(2, 1);
        RUVClose(conn);
        free_conn(conn);
        return 0;
    });
}

int RUVCheckPeer(RUVConn *conn) {
    return ruv::traced("RUVCheckPeer", [&] {
        if (!conn) return fail(2, 1);
        return conn->skt == -1 ? fail(22) : libruv_check_peer(conn);
    });
}

int RUVSetInterrupt(RUVConn *conn, int (*stopping)(void *), void *arg) {
    return ruv::traced("RUVSetInterrupt", [&] { return set_interrupt(conn, stopping, arg); });
}

int RUVSetTLSOptions(RUVConn *conn, const char *min_version, const char *ca_file,
                     const char *peer_name, const char *cert_file, const char *key_file) {
    return ruv::traced("RUVSetTLSOptions", [&] {
        return set_tls_options(conn, min_version, ca_file, peer_name, cert_file, key_file);
    });
}
