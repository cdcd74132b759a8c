#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "ruv/ruvlib.h"
#include "tools/check/effective.h"
#include "tools/check/live_files.h"
#include "tools/check/rules.h"
#include "tools/check/steps.h"
#include "tools/host/lock_holder.h"

namespace {

constexpr int kUnreadable = 66;
constexpr int kErrorsFound = 78;
constexpr size_t kErrorTextBytes = 512;

// A key's value as a C string for the library, null when it is absent.
struct optional_text {
    std::string text;
    const char *get() const { return text.empty() ? nullptr : text.c_str(); }
};

bool uses_modern_tls(const config_text &text) {
    for (const char *key :
         {"rec_tls_min", "rec_tls_ca", "rec_tls_name", "rec_tls_cert", "rec_tls_key"}) {
        if (!global_value(text, key).empty()) return true;
    }
    return false;
}

std::string last_error(RUVConn *conn) {
    char buffer[kErrorTextBytes];
    RUVStrError(conn, ruverrno, buffer);
    return buffer;
}

bool set_tls(const config_text &text, RUVConn *conn, steps *done) {
    const optional_text lowest{global_value(text, "rec_tls_min")};
    const optional_text ca{global_value(text, "rec_tls_ca")};
    optional_text name{global_value(text, "rec_tls_name")};
    if (name.text.empty()) name.text = global_value(text, "rec_ip");
    const optional_text cert{global_value(text, "rec_tls_cert")};
    const optional_text key{global_value(text, "rec_tls_key")};
    if (RUVSetTLSOptions(conn, lowest.get(), ca.get(), name.get(), cert.get(), key.get()) == 0) {
        return true;
    }
    done->bad("TLS settings: " + last_error(conn));
    return false;
}

void check_receiver(const config_text &text, steps *done) {
    const std::string host = global_value(text, "rec_ip");
    const long port = number_of(global_value(text, "rec_port")).value_or(0);
    const long encrypt = number_of(global_value(text, "rec_encrypt")).value_or(0);
    const int mode = encrypt == 0 ? 0 : encrypt == 2 ? 2 : 1;
    const std::string where = host + ":" + std::to_string(port);
    std::unique_ptr<RUVConn, decltype(&RUVFreeConn)> conn(
        RUVAllocConn(host.c_str(), static_cast<int>(port), 0, mode, 0), &RUVFreeConn);
    if (conn == nullptr) {
        done->bad("resolving " + where + ": " + last_error(nullptr));
        return;
    }
    done->good("resolved " + host);
    if (mode != 0 && uses_modern_tls(text) && !set_tls(text, conn.get(), done)) return;
    if (RUVOpen(conn.get()) != 0) {
        done->bad("connecting to " + where + ": " + last_error(conn.get()));
        return;
    }
    done->good("connected to " + where + (mode == 0 ? ", plain" : ", TLS") + ", probe answered");
    if (mode != 0 && !uses_modern_tls(text)) {
        done->note("this is the legacy TLS 1.0; nobody checked who answered (see rec_tls_ca)");
    }
    uint16_t major = 0, minor = 0, dot = 0;
    char patch[3] = "";
    uint64_t stamp = 0;
    if (RUVGetReceiverVer(conn.get(), &major, &minor, &dot, patch, &stamp) == 0) {
        done->good("Receiver version " + std::to_string(major) + "." + std::to_string(minor) + "." +
                   std::to_string(dot));
    }
    void *record = RUVAllocData(conn.get(), 3, 0, 0);
    if (record == nullptr) {
        done->bad("the Receiver takes no syslog records: " + last_error(conn.get()));
    } else {
        done->good("the Receiver takes syslog records");
        RUVFreeData(record);
    }
}

// Returns the process that holds the lock, or 0.
long check_lock(steps *done) {
    const lock_holder holder = find_lock_holder(kCollectorLockPath);
    if (holder.pid != 0) {
        done->note("a collector runs as process " + std::to_string(holder.pid));
    } else if (holder.file_exists && access(kCollectorLockPath, W_OK) != 0) {
        done->bad(std::string("lock file ") + kCollectorLockPath + ": " + strerror(errno));
    } else {
        done->good("no collector holds the lock");
    }
    return holder.pid;
}

}  // namespace

int check_live(const std::string &path) {
    config_text text;
    std::string reason;
    if (!config_text_read(path, &text, &reason)) {
        fprintf(stderr, "siem_collector_check: %s: %s\n", path.c_str(), reason.c_str());
        return kUnreadable;
    }
    steps done;
    check_live_files(text, check_lock(&done), &done);
    check_receiver(text, &done);
    return done.failed() ? kErrorsFound : 0;
}
