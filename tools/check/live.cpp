#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "ruv/ruvlib.h"
#include "tools/check/effective.h"
#include "tools/check/rules.h"
#include "tools/host/lock_holder.h"

namespace {

constexpr int kUnreadable = 66;
constexpr int kErrorsFound = 78;
constexpr size_t kErrorTextBytes = 512;

// A step's outcome, printed at once: a live check can take half a minute.
class steps {
  public:
    void good(const std::string &text) { print("ok  ", text); }
    void bad(const std::string &text) {
        print("FAIL", text);
        failed_ = true;
    }
    void note(const std::string &text) { print("note", text); }
    bool failed() const { return failed_; }

  private:
    void print(const char *word, const std::string &text) {
        printf("%s  %s\n", word, text.c_str());
        fflush(stdout);
    }
    bool failed_ = false;
};

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

void check_writable(const std::string &path, const char *what, steps *done) {
    std::string existing = path;
    struct stat info {};
    while (existing.size() > 1 && stat(existing.c_str(), &info) != 0) {
        const size_t slash = existing.rfind('/');
        existing = slash == 0 || slash == std::string::npos ? "/" : existing.substr(0, slash);
    }
    if (access(existing.c_str(), W_OK | X_OK) != 0) {
        done->bad(std::string(what) + " " + path + ": " + existing +
                  " is not writable: " + strerror(errno));
    } else if (existing == path) {
        done->good(std::string(what) + " " + path + " is writable");
    } else {
        done->good(std::string(what) + " " + path + " can be created");
    }
}

void check_directories(const config_text &text, steps *done) {
    const std::string bookmarks = global_value(text, "bookmark_dir");
    if (!bookmarks.empty()) check_writable(bookmarks, "bookmark directory", done);
    const std::string log = global_value(text, "log_path");
    const size_t slash = log.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        check_writable(log.substr(0, slash), "log directory", done);
    }
    for (const config_section &section : text.sections) {
        const std::string directory = section_directory(text, section);
        if (section.type != "filetail" || directory.empty()) continue;
        if (access(directory.c_str(), R_OK | X_OK) == 0) {
            done->good("directory " + directory + " is readable");
        } else {
            done->bad("directory " + directory + ": " + strerror(errno));
        }
    }
}

void check_lock(steps *done) {
    const lock_holder holder = find_lock_holder(kCollectorLockPath);
    if (holder.pid != 0) {
        done->note("a collector runs as process " + std::to_string(holder.pid));
    } else if (holder.file_exists && access(kCollectorLockPath, W_OK) != 0) {
        done->bad(std::string("lock file ") + kCollectorLockPath + ": " + strerror(errno));
    } else {
        done->good("no collector holds the lock");
    }
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
    check_lock(&done);
    check_directories(text, &done);
    check_receiver(text, &done);
    return done.failed() ? kErrorsFound : 0;
}
