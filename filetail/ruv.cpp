#include "filetail/ruv.h"

#include <errno.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <memory>

#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/args.h"
#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/cutter.h"
#include "filetail/ruv_link.h"
#include "ruv/ruvlib.h"
#include "ruv/ruvlibsetters.h"

lock_word ruv_lock{0};
std::atomic<int8_t> _connected{0};

namespace {

constexpr int kReconnectSeconds = 300;
constexpr int kConfirmSeconds = 30;
constexpr int kFailurePauseMilliseconds = 1000;
/// How long a connection may be trusted before a send looks whether the peer has closed it.
constexpr int64_t kTrustNanoseconds = 100'000;
constexpr int kWrongGeneration = 12;

/// Failed sends of this worker since its last success.
thread_local int failures_in_a_row = 0;

/// Whether the library writes lines of its own to standard error, which may be the log file.
std::atomic<bool> library_speaks{false};

/// What a failure left behind, taken before anything else can overwrite it.
struct failure {
    int system_error;
    int code;
    std::string text;
};

failure take_failure() {
    const int code = ruverrno;
    const int system_error = code == kSystemError ? ruverrno2 : errno;
    return {system_error, code, link_error_text(code)};
}

int64_t now_nanoseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// True unless the Receiver has already closed the connection: what is written to a closed one is
/// lost without an error. Asked before a send, but not thousands of times a second.
bool peer_is_there() {
    static int64_t last_look = 0;  // under ruv_lock
    const int64_t now = now_nanoseconds();
    if (now - last_look < kTrustNanoseconds) return true;
    last_look = now;
    return RUVCheckPeer(conf.ruvconn) == 0;
}

bool send_record(plugin *p, const char *text, size_t length, time_t now) {
    RUVResetData(p->data);
    RUVSyslogSet_message(p->data, text, static_cast<int>(length));
    RUVSyslogSet_collect_time(p->data, static_cast<uint32_t>(now));
    return RUVSendData(conf.ruvconn, p->data, p->dsinfo) >= 0;
}

/// An event of more than one record's length goes as consecutive records, so that nothing of it is
/// lost.
bool send_records(plugin *p, const char *event, size_t length, time_t now) {
    if (length > kRecordBytes) {
        logger(kLogWarn, "Event of %zu bytes is sent as %zu records", length,
               (length + kRecordBytes - 1) / kRecordBytes);
    }
    for (size_t done = 0; done < length;) {
        const size_t piece = std::min(length - done, kRecordBytes);
        if (!send_record(p, event + done, piece, now)) return false;
        done += piece;
    }
    return true;
}

/// The road of a failed send, under the lock: says what happened and, when the connection itself
/// was lost, opens it again at once.
void handle_failure(const failure &what) {
    _connected.store(0, std::memory_order_relaxed);
    if (!is_executing()) {
        // A wait was cut short. Part of a record may be on its way: the stream is of no more use.
        link_close();
        return;
    }
    ++failures_in_a_row;
    logger(kLogError, "Error in ruv send, %d - %d - %s", what.system_error, what.code,
           what.text.c_str());
    if (!link_was_lost(what.code, what.system_error)) return;
    std::string reason;
    if (link_reopen(&reason)) {
        _connected.store(1, std::memory_order_relaxed);
        logger(kLogDebug, "Successfully re-established connection.");
    } else if (is_executing()) {
        logger(kLogError, "Error connecting to the Receiver: %s", reason.c_str());
    }
}

/// True when there is no open connection, whatever the flag says: each plugin that starts sets the
/// flag to what the start of the daemon found, and a worker may have lost the connection since.
bool nothing_is_open() {
    return conf.ruvconn == nullptr ||
           (RUVCheckPeer(conf.ruvconn) != 0 && ruverrno == kNotConnected);
}

/// A record that fits the connection; without one the daemon cannot go on.
bool have_record(plugin *p) {
    if (!link_record_fits(p) && nothing_is_open()) {
        _connected.store(0, std::memory_order_relaxed);
        return false;
    }
    if (link_fit_record(p)) return true;
    stop_execution();
    return false;
}

/// A message of every event. Where the library's lines make the log grow, the logger gets even a
/// masked one: it looks at the size of the file.
void log_of_each_event(const char *message) {
    if (log_enabled(kLogDebug) || library_speaks.load(std::memory_order_relaxed)) {
        logger(kLogDebug, "%s", message);
    }
}

bool may_send() {
    return _connected.load(std::memory_order_relaxed) == 1 && is_executing();
}

int send_event_locked(plugin *p, const char *event, size_t length) {
    // Another worker may have lost the connection while this one waited for the lock.
    if (!may_send() || !have_record(p)) return 0;
    errno = 0;
    if (peer_is_there() && send_records(p, event, length, time(nullptr))) {
        failures_in_a_row = 0;
        return 1;
    }
    handle_failure(take_failure());
    return 0;
}

/// Queues the events of a group and has them confirmed.
bool send_and_confirm(plugin *p, const group_event *events, int count) {
    const time_t now = time(nullptr);
    for (int i = 0; i < count; ++i) {
        if (send_records(p, events[i].text, events[i].length, now)) continue;
        const failure what = take_failure();
        RUVGroupDrop(conf.ruvconn);
        handle_failure(what);
        return false;
    }
    if (RUVGroupCommit(conf.ruvconn, kConfirmSeconds) == 0) return true;
    handle_failure(take_failure());
    return false;
}

int send_group_locked(plugin *p, const group_event *events, int count) {
    if (!may_send() || !have_record(p)) return 0;
    errno = 0;
    if (RUVGroupBegin(conf.ruvconn) != 0) {
        if (ruverrno == kWrongGeneration) {
            link_confirm_unavailable();
            return -1;
        }
        handle_failure(take_failure());
        return 0;
    }
    if (!send_and_confirm(p, events, count)) return 0;
    failures_in_a_row = 0;
    return 1;
}

/// The pause before another attempt to connect. A configured one is spread over its second half,
/// so that many hosts do not come back in step.
void pause_before_reconnect() {
    if (conf.reconnect_wait <= 0) {
        safe_sleep(kReconnectSeconds);
        return;
    }
    const auto half = static_cast<uint32_t>(conf.reconnect_wait) * 500;
    wait_while_executing(static_cast<int>(half + arc4random_uniform(half + 1)));
}

void warn_of_legacy_tls(const config *c) {
    static std::atomic<bool> said{false};
    if (!link_legacy_tls(c) || said.exchange(true)) return;
    logger(kLogWarn,
           "Legacy TLS is in use: the Receiver is not authenticated (see rec_tls_ca, rec_tls_min)");
}

}  // namespace

int ruv_init(config *c) {
    const spinlock_guard hold(ruv_lock);
    c->connected.store(1);
    const uint64_t library_level = translate_lib_level(c->debug);
    library_speaks.store(library_level != 0, std::memory_order_relaxed);
    RUVSetLogging(library_level);
    logger(kLogInfo, "Attempting connection to Server: %ls -- Port: %d -- Encrypt: %d",
           c->ruv.server, c->ruv.port, c->ruv.encrypt);
    warn_of_legacy_tls(c);
    std::string reason;
    if (!link_start(c, &reason)) {
        logger(kLogError, "Error connecting to the Receiver: %s", reason.c_str());
        c->connected.store(0);
        return 1;
    }
    if (g_args.autolearn) {
        logger(kLogInfo, "Enabling auto learning on client");
        RUVEnableAutoLearn(c->ruvconn);
    }
    return 0;
}

void ruv_teardown(config *c) {
    const spinlock_guard hold(ruv_lock);
    link_free(c);
}

int ruv_alloc_record(plugin *p) {
    const spinlock_guard hold(ruv_lock);
    return link_alloc_record(p) ? 0 : -1;
}

int ruv_ensure_connected(plugin *p) {
    for (;;) {
        if (!is_executing()) return -1;
        if (_connected.load(std::memory_order_relaxed) == 1 && link_record_fits(p)) return 0;
        std::string reason;
        {
            const spinlock_guard hold(ruv_lock);
            if (!is_executing()) return -1;
            // Look again: another worker may have connected while this one waited for the lock.
            if (_connected.load(std::memory_order_relaxed) == 0 && link_reopen(&reason)) {
                _connected.store(1, std::memory_order_relaxed);
                logger(kLogDebug, "Successfully re-established connection.");
            }
            if (_connected.load(std::memory_order_relaxed) == 1) return have_record(p) ? 0 : -1;
        }
        if (!is_executing()) return -1;
        logger(kLogError, "Error connecting to the Receiver: %s", reason.c_str());
        pause_before_reconnect();
    }
}

int send_event(plugin *p, const char *event, size_t length) {
    log_of_each_event("engage ruv spin lock");
    int sent;
    {
        const spinlock_guard hold(ruv_lock);
        sent = send_event_locked(p, event, length);
    }
    log_of_each_event("released ruv spin lock");
    return sent;
}

int send_group(plugin *p, const group_event *events, int count) {
    log_of_each_event("engage ruv spin lock");
    int sent;
    {
        const spinlock_guard hold(ruv_lock);
        sent = send_group_locked(p, events, count);
    }
    log_of_each_event("released ruv spin lock");
    return sent;
}

int ruv_group_limit() {
    if (conf.rec_confirm <= 0 || !link_can_confirm()) return 0;
    return std::min(conf.rec_confirm, kBatchEvents);
}

void ruv_pause_after_failure() {
    if (failures_in_a_row > 1) wait_while_executing(kFailurePauseMilliseconds);
}
