#include "tools/ruv_send/session.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>

#include "tools/common/json_writer.h"

namespace sender {
namespace {

constexpr int kConfirmSeconds = 60; /**< longest wait for the confirmation of a group */

void print(const std::string &line) {
    fwrite(line.data(), 1, line.size(), stdout);
    fflush(stdout);
}

const char *or_null(const std::string &text) {
    return text.empty() ? nullptr : text.c_str();
}

bool sets_third_party(const job &wanted) {
    return std::ranges::any_of(
        wanted.fields, [](const field_value &field) { return field.name == "3rd_party_type"; });
}

}  // namespace

session::~session() {
    for (auto &[key, record] : records_) RUVFreeData(record);
    for (auto &[key, source] : sources_) RUVFreeDSInfo(source);
    if (conn_ != nullptr) RUVFreeConn(conn_);
}

/** Prints what a call answered; true when it succeeded. */
bool session::report(const char *call, int result, bool always) {
    int error = ruverrno;
    if (result >= 0 && !always) return true;
    std::string text;
    {
        tools::json_object line(text);
        line.text("call", call);
        line.signed_number("result", result);
        if (result < 0) {
            char reason[1024] = "";
            RUVStrError(conn_, error, reason);
            line.signed_number("error", error);
            line.text("text", reason);
        }
    }
    print(text);
    return result >= 0;
}

bool session::open() {
    RUVSetLogging(chosen_.logging);
    conn_ = RUVAllocConn(chosen_.host.c_str(), static_cast<int>(chosen_.port), chosen_.ip_mode,
                         chosen_.tls, chosen_.generation);
    if (conn_ == nullptr) return report("RUVAllocConn", -1);
    if (chosen_.modern_tls &&
        !report("RUVSetTLSOptions",
                RUVSetTLSOptions(conn_, or_null(chosen_.tls_min), or_null(chosen_.tls_ca),
                                 or_null(chosen_.tls_name), or_null(chosen_.tls_cert),
                                 or_null(chosen_.tls_key))))
        return false;
    if (chosen_.auto_learn) RUVEnableAutoLearn(conn_);
    bool opened = report("RUVOpen", RUVOpen(conn_));
    if (chosen_.print_conn) RUVPrintConn(conn_);
    return opened && ask();
}

/** Asks the Receiver what the settings want to know. */
bool session::ask() {
    bool good = true;
    if (chosen_.receiver_version) {
        uint16_t major = 0, minor = 0, dot = 0;
        char patch[3] = {};
        uint64_t build = 0;
        int result = RUVGetReceiverVer(conn_, &major, &minor, &dot, patch, &build);
        good = report("RUVGetReceiverVer", result) && good;
        if (result == 0) {
            std::string text;
            {
                tools::json_object line(text);
                line.number("major", major);
                line.number("minor", minor);
                line.number("dot", dot);
                line.text("patch", patch);
                line.number("buildstamp", build);
            }
            print(text);
        }
    }
    if (chosen_.is_known) {
        job wanted = {chosen_.type,
                      static_cast<int>(chosen_.version),
                      static_cast<int>(chosen_.subversion),
                      chosen_.source,
                      {}};
        void *record = record_for(wanted);
        RUVDSInfo *source = source_for(chosen_.source);
        good = record != nullptr && report("RUVIsDSKnown", RUVIsDSKnown(conn_, record, source)) &&
               good;
    }
    if (!good) failed_++;
    return true;
}

void *session::record_for(const job &wanted) {
    const record_key key = {wanted.type, wanted.version, wanted.subversion};
    void *&record = records_[key];
    // A reset keeps the third-party type, which belongs to the one event that it was given with.
    if (third_party_.erase(key) != 0) {
        RUVFreeData(record);
        record = nullptr;
    }
    if (sets_third_party(wanted)) third_party_.insert(key);
    if (record == nullptr)
        record = RUVAllocData(conn_, wanted.type, wanted.version, wanted.subversion);
    if (record != nullptr) return record;
    records_.erase(key);
    third_party_.erase(key);
    report("RUVAllocData", -1);
    return nullptr;
}

RUVDSInfo *session::source_for(const source_choice &source) {
    if (source.kind == 0) return nullptr;
    RUVDSInfo *&known = sources_[{source.kind, source.text}];
    if (known != nullptr) return known;
    uint32_t words[4] = {};
    const void *data = source.kind == 3 ? static_cast<const void *>(source.text.c_str()) : words;
    if (source.kind != 3)
        inet_pton(source.kind == 1 ? AF_INET : AF_INET6, source.text.c_str(), words);
    for (uint32_t &word : words) word = ntohl(word);
    return known = RUVAllocDSInfo(source.kind, data);
}

bool session::fill(void *record, const job &wanted, record_memory *memory) {
    RUVResetData(record);
    for (const field_value &field : wanted.fields) {
        std::string call;
        switch (set_field(conn_, record, wanted.type, field, memory, &call)) {
            case set_result::done:
                break;
            case set_result::cut:
                note("the text of '" + field.name + "' was cut");
                break;
            case set_result::refused:
                if (field.optional) break;
                report(call.c_str(), -1);
                return false;
            case set_result::unknown:
                reject("no field '" + field.name + "'");
                return false;
            case set_result::bad_value:
                reject("bad value '" + field.value + "' for '" + field.name + "'");
                return false;
        }
    }
    return true;
}

bool session::send(const job &wanted) {
    record_memory memory;
    uint64_t failed_before = failed_;
    void *record = record_for(wanted);
    if (record == nullptr || !fill(record, wanted, &memory)) {
        failed_ = failed_before + 1;
        return true;
    }
    if (chosen_.group > 0 && in_group_ == 0 &&
        !report("RUVGroupBegin", RUVGroupBegin(conn_), false))
        return false;
    int result = RUVSendData(conn_, record, source_for(wanted.source));
    bool alone = chosen_.from == input::options && chosen_.count == 1;
    if (!report("RUVSendData", result, alone || chosen_.verbose)) {
        failed_++;
        // A record that the library refuses leaves the connection usable; anything else does not.
        return RUVCheckPeer(conn_) == 0;
    }
    bytes_ += static_cast<uint64_t>(result);
    sent_++;
    if (chosen_.group > 0 && ++in_group_ == chosen_.group) return confirm_group();
    return true;
}

bool session::confirm_group() {
    int64_t count = in_group_;
    in_group_ = 0;
    if (report("RUVGroupCommit", RUVGroupCommit(conn_, kConfirmSeconds), chosen_.verbose))
        return true;
    sent_ -= static_cast<uint64_t>(count);
    failed_ += static_cast<uint64_t>(count);
    return false;
}

bool session::finish() {
    return in_group_ == 0 || confirm_group();
}

void session::note(const std::string &what) {
    std::string text;
    {
        tools::json_object line(text);
        line.text("note", what);
    }
    print(text);
}

void session::reject(const std::string &why) {
    std::string text;
    {
        tools::json_object line(text);
        line.text("rejected", why);
    }
    print(text);
    failed_++;
}

int session::summarise(double seconds) {
    std::string text;
    {
        tools::json_object line(text);
        line.number("sent", sent_);
        line.number("failed", failed_);
        line.number("bytes", bytes_);
        line.real("seconds", seconds, 6);
    }
    print(text);
    return failed_ == 0 ? 0 : 1;
}

}  // namespace sender
