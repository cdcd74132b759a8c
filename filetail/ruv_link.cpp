#include "filetail/ruv_link.h"

#include <errno.h>
#include <stdlib.h>

#include <atomic>
#include <memory>
#include <new>

#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/args.h"
#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "ruv/ruvlib.h"

namespace {

constexpr int kSyslogType = 3;
constexpr int kErrorTextBytes = 1024;

struct free_string {
    void operator()(char *text) const { free(text); }
};
using narrow_string = std::unique_ptr<char, free_string>;

/// Counts the opened connections, so that a worker knows a record that was made for an older one.
std::atomic<uint32_t> opened_connections{1};
/// The connection, by the same count, that was found unable to confirm.
std::atomic<uint32_t> unconfirmed_connection{0};

/// The calling worker's record.
struct own_record {
    const plugin *owner;
    uint32_t connection;
};
thread_local own_record mine{nullptr, 0};

/// The configured Receiver has answered as one of version 6 since the last start or restart.
std::atomic<bool> seen_version_6{false};

/// Start-up and restart wait for the Receiver while the workers are paused; only a stop ends that.
thread_local bool starting_up = false;

int must_stop_waiting(void *) {
    return starting_up ? !is_running() : !is_executing();
}

narrow_string narrow(const wchar_t *text) {
    return narrow_string(wstrtostr(text));
}

bool authenticated_tls(const config *c) {
    return c->rec_tls_min || c->rec_tls_ca || c->rec_tls_name || c->rec_tls_cert || c->rec_tls_key;
}

/// The library's mode for the configured number: 2 asks for TLS on a plain connection, any other
/// non-zero one means TLS from the first byte.
int tls_mode(int32_t encrypt) {
    if (encrypt == 0 || encrypt == 2) return encrypt;
    return 1;
}

int apply_tls_options(const config *c, RUVConn *conn) {
    return RUVSetTLSOptions(conn, narrow(c->rec_tls_min).get(), narrow(c->rec_tls_ca).get(),
                            narrow(c->rec_tls_name).get(), narrow(c->rec_tls_cert).get(),
                            narrow(c->rec_tls_key).get());
}

/// Says what it can: a start has nobody above it who would catch an exception.
std::string error_text(RUVConn *conn, int code) try {
    char text[kErrorTextBytes] = "";
    RUVStrError(conn, code, text);
    return text;
} catch (const std::bad_alloc &) {
    return "out of memory";  // short enough to need none
}

/// Makes the handle. One whose TLS options are refused is not kept: it must never be opened with
/// less than what was asked for.
bool make_handle(config *c, std::string *reason) {
    RUVSetInterrupt(nullptr, must_stop_waiting, nullptr);
    RUVConn *conn =
        RUVAllocConn(narrow(c->ruv.server).get(), c->ruv.port, 0, tls_mode(c->ruv.encrypt), 0);
    if (conn == nullptr) {
        *reason = error_text(nullptr, ruverrno);
        return false;
    }
    if (authenticated_tls(c) && apply_tls_options(c, conn) != 0) {
        *reason = error_text(conn, ruverrno);
        RUVFreeConn(conn);
        return false;
    }
    c->ruvconn = conn;
    return true;
}

/// True when the handle has learned that its Receiver takes version-6 records.
bool speaks_version_6(RUVConn *conn) {
    void *record = RUVAllocData(conn, kSyslogType, 6, 0);
    if (record == nullptr) return false;
    RUVFreeData(record);
    return true;
}

/// A Receiver that dies or stalls amid the probe looks like one of the older generation, which
/// cannot confirm. One that is known to be able to must not be talked to as if it were not.
bool hides_its_generation(config *c) {
    if (speaks_version_6(c->ruvconn)) {
        seen_version_6.store(true, std::memory_order_relaxed);
        return false;
    }
    return c->rec_confirm > 0 && seen_version_6.load(std::memory_order_relaxed);
}

/// Opens the handle. One that does not exist is made first.
bool open_handle(config *c, std::string *reason) {
    if (c->ruvconn == nullptr && !make_handle(c, reason)) return false;
    if (RUVOpen(c->ruvconn) != 0) {
        *reason = error_text(c->ruvconn, ruverrno);
        return false;
    }
    if (hides_its_generation(c)) {
        *reason = "no answer of version 6, which rec_confirm needs";
        link_free(c);
        return false;
    }
    opened_connections.fetch_add(1, std::memory_order_relaxed);
    return true;
}

}  // namespace

std::string link_error_text(int code) {
    return error_text(conf.ruvconn, code);
}

void link_close() {
    if (conf.ruvconn != nullptr) RUVClose(conf.ruvconn);
}

bool link_start(config *c, std::string *reason) {
    starting_up = true;
    seen_version_6.store(false, std::memory_order_relaxed);
    const bool open = open_handle(c, reason);
    starting_up = false;
    return open;
}

void link_free(config *c) {
    if (c->ruvconn == nullptr) return;
    RUVClose(c->ruvconn);
    RUVFreeConn(c->ruvconn);
    c->ruvconn = nullptr;
}

bool link_legacy_tls(const config *c) {
    return c->ruv.encrypt != 0 && !authenticated_tls(c);
}

bool link_reopen(std::string *reason) {
    link_close();
    if (conf.ruvconn != nullptr && !speaks_version_6(conf.ruvconn)) link_free(&conf);
    const bool made_anew = conf.ruvconn == nullptr;
    if (!open_handle(&conf, reason)) return false;
    if (made_anew && g_args.autolearn) RUVEnableAutoLearn(conf.ruvconn);
    return true;
}

bool link_was_lost(int code, int system_error) {
    return code == kSystemError || code == kNotConnected || system_error == ETIMEDOUT ||
           system_error == ECONNREFUSED;
}

bool link_alloc_record(plugin *p) {
    if (p->data != nullptr) RUVFreeData(p->data);
    p->ruvconn = conf.ruvconn;
    p->data = RUVAllocData(conf.ruvconn, kSyslogType, 0, 0);
    if (p->data != nullptr) return true;
    logger(kLogError, "RUVAllocData failed (Server: %s, Version: %d, Subversion: %d)! (%d)\n",
           narrow(conf.ruv.server).get(), 0, 0, ruverrno);
    return false;
}

bool link_record_fits(const plugin *p) {
    return p->data != nullptr && mine.owner == p &&
           mine.connection == opened_connections.load(std::memory_order_relaxed);
}

bool link_fit_record(plugin *p) {
    const uint32_t current = opened_connections.load(std::memory_order_relaxed);
    // The record of the plugin's start counts as an old one: another worker may have opened the
    // connection anew since, to a Receiver of another generation.
    if (!link_record_fits(p) && !link_alloc_record(p)) return false;
    mine = {p, current};
    return true;
}

void link_confirm_unavailable() {
    unconfirmed_connection.store(opened_connections.load(std::memory_order_relaxed),
                                 std::memory_order_relaxed);
    static std::atomic<bool> said{false};
    if (said.exchange(true)) return;
    logger(kLogWarn, "The Receiver cannot confirm events; rec_confirm is not in effect");
}

bool link_can_confirm() {
    return unconfirmed_connection.load(std::memory_order_relaxed) !=
           opened_connections.load(std::memory_order_relaxed);
}
