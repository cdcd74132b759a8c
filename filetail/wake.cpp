#include "filetail/wake.h"

#include <errno.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>

#include "core/execution.h"
#include "core/siemcollector_log.h"

namespace {

constexpr uint32_t kWatched = IN_MODIFY | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                              IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

/// Reports at most once that the kernel cannot watch; the pauses are then slept out.
void warn_once(const char *directory, int error) {
    static std::atomic<bool> said{false};
    if (said.exchange(true)) return;
    logger(kLogWarn, "Cannot watch %s for changes: (%d)%s", directory, error, strerror(error));
}

void stop_watching(wake_watch *watch) {
    if (watch->fd >= 0) close(watch->fd);
    watch->fd = -1;
}

/// Passes the reports on. Returns what they amount to.
wake_reason take_reports(wake_watch *watch, const char *reports, size_t size,
                         void (*named)(void *, const char *), void *arg) {
    wake_reason reason = wake_reason::written;
    const char *last = "";
    for (size_t at = 0; at + sizeof(inotify_event) <= size;) {
        const auto *report = reinterpret_cast<const inotify_event *>(reports + at);
        at += sizeof(inotify_event) + report->len;
        if (report->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) {
            stop_watching(watch);
            return wake_reason::directory;
        }
        if ((report->mask & IN_MODIFY) == 0) {
            reason = wake_reason::directory;
        } else if (report->len > 0 && strcmp(last, report->name) != 0) {
            last = report->name;
            named(arg, last);
        }
    }
    return reason;
}

}  // namespace

wake_watch::~wake_watch() {
    stop_watching(this);
}

void wake_start(wake_watch *watch, const char *directory) {
    if (watch->fd >= 0 || watch->failed) return;
    watch->fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (watch->fd >= 0 && inotify_add_watch(watch->fd, directory, kWatched) >= 0) return;
    const int error = errno;
    stop_watching(watch);
    // A directory that is not there may come: the next pass tries again.
    if (error == ENOENT || error == ENOTDIR) return;
    watch->failed = true;
    warn_once(directory, error);
}

wake_reason wake_wait(wake_watch *watch, int milliseconds, void (*named)(void *, const char *),
                      void *arg) {
    if (!wait_readable_while_executing(watch->fd, milliseconds)) return wake_reason::timeout;
    alignas(inotify_event) char reports[16 * 1024];
    const ssize_t size = read(watch->fd, reports, sizeof reports);
    if (size <= 0) return wake_reason::timeout;
    return take_reports(watch, reports, static_cast<size_t>(size), named, arg);
}
