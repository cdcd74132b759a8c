#include "filetail/filetail.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/bookmark.h"
#include "filetail/discovery.h"
#include "filetail/reader.h"
#include "filetail/ruv.h"
#include "filetail/wake.h"

namespace {

constexpr useconds_t kFilePauseMicroseconds = 300;
constexpr size_t kWorkerStackBytes = 2 * 1024 * 1024;
/// A pass that only met files which cannot be opened waits this long before the next.
constexpr int kUnreadablePauseMilliseconds = 1000;
/// With "sleep=0" an idle worker still leaves the processor to others.
constexpr int kShortestIdleMilliseconds = 10;
/// Longest wait for a report of the kernel before the state is looked at again.
constexpr int kWakeSliceMilliseconds = 500;
/// After so many looks in a row that brought no event, an unfinished one that grows byte by byte, a
/// look is followed by a pause of some times what it took.
constexpr int kVainLooks = 8;
constexpr int kVainPauseFactor = 8;
constexpr int64_t kShortestVainPauseMilliseconds = 20;
constexpr int64_t kLongestVainPauseMilliseconds = 1000;
/// With more files written at once than this, a pass over all of them is as good.
constexpr size_t kMostWrittenFiles = 64;

struct free_memory {
    void operator()(void *memory) const { free(memory); }
};
using narrow_string = std::unique_ptr<char, free_memory>;

struct pass_outcome {
    int sent = 0;          ///< as reported: an unreadable file counts 1
    bool handled = false;  ///< an event was sent or dropped
};

/// Reads one file's new events and adds them to the pass.
void read_into(pass_outcome *pass, fdesc *file, int throttle) {
    const read_outcome outcome = read_file(file, throttle);
    const int sent = outcome.unreadable ? 1 : outcome.handled;
    logger(kLogDebug, "Sent %d event(s) to SIEM from %s", sent, file->n);
    pass->sent += sent;
    pass->handled |= outcome.handled > 0;
}

pass_outcome read_all(ft_bm *group) {
    pass_outcome pass;
    for (int32_t i = 0; i < group->fc && is_executing(); ++i) {
        if (i > 0) usleep(kFilePauseMicroseconds);
        read_into(&pass, group->f[i], group->p->throttle);
    }
    logger(kLogDebug, "Sent %d event(s) to SIEM", pass.sent);
    return pass;
}

int64_t now_milliseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

using name_list = std::vector<std::string>;

void add_name(void *names, const char *name) {
    static_cast<name_list *>(names)->push_back(name);
}

bool ends_in(const char *path, const std::string &name) {
    const char *slash = path == nullptr ? nullptr : strrchr(path, '/');
    return slash != nullptr && name == slash + 1;
}

fdesc *find_file(const ft_bm *group, const std::string &name) {
    for (int32_t i = 0; i < group->fc; ++i) {
        fdesc *file = group->f[i];
        if (ends_in(file->n, name) || ends_in(file->drain, name)) return file;
    }
    return nullptr;
}

/// Reads the files that were written to; `*vain` tells whether that brought nothing. Returns false
/// when the whole directory must be looked at.
bool read_written(ft_bm *group, name_list *names, bool *vain) {
    bool looked = false;
    bool handled = false;
    std::sort(names->begin(), names->end());
    names->erase(std::unique(names->begin(), names->end()), names->end());
    if (names->size() > kMostWrittenFiles) return false;
    for (const std::string &name : *names) {
        fdesc *file = find_file(group, name);
        if (file == nullptr) continue;
        if (file->drain != nullptr || get_bookmark(file) != 1) return false;
        pass_outcome pass;
        read_into(&pass, file, group->p->throttle);
        looked = true;
        handled |= pass.handled;
        // More is left, or nothing can be sent: the loop knows what to do.
        if (!file->at_end || !is_executing()) return false;
    }
    *vain = looked && !handled;
    return true;
}

/// Idles like safe_sleep(), but serves files as soon as they are written to, and ends early when
/// files come or go.
void idle_awake(ft_bm *group, wake_watch *watch, int seconds) {
    const int64_t end = now_milliseconds() + int64_t{seconds} * 1000;
    name_list names;
    int vain_looks = 0;
    for (int64_t left = end - now_milliseconds(); left > 0 && is_executing();
         left = end - now_milliseconds()) {
        names.clear();
        const int slice = static_cast<int>(std::min<int64_t>(left, kWakeSliceMilliseconds));
        const wake_reason reason = wake_wait(watch, slice, add_name, &names);
        const int64_t begin = now_milliseconds();
        bool vain = false;
        if (reason == wake_reason::directory || !read_written(group, &names, &vain)) return;
        vain_looks = vain ? vain_looks + 1 : 0;
        if (vain_looks <= kVainLooks) continue;
        const int64_t pause = (now_milliseconds() - begin) * kVainPauseFactor;
        wait_while_executing(static_cast<int>(
            std::clamp(pause, kShortestVainPauseMilliseconds, kLongestVainPauseMilliseconds)));
    }
}

void rest(ft_bm *group, const pass_outcome &pass, wake_watch *watch) {
    if (pass.handled) return;
    if (pass.sent > 0) {
        wait_while_executing(kUnreadablePauseMilliseconds);
        return;
    }
    const int seconds = group->p->sleep;
    logger(kLogDebug, "No events to read, sleeping %d second(s)", seconds);
    if (seconds <= 0) {
        wait_while_executing(kShortestIdleMilliseconds);
    } else if (watch->fd >= 0) {
        idle_awake(group, watch, seconds);
    } else {
        safe_sleep(seconds);
    }
}

void work(ft_bm *group) {
    wake_watch watch;
    const narrow_string directory(wstrtostr(group->p->ft.ft_dir));
    while (is_executing()) {
        if (ruv_ensure_connected(group->p) != 0) return;
        // Watching begins before the scan, so that nothing between the two goes unnoticed.
        if (conf.wake_on_change && directory) wake_start(&watch, directory.get());
        update_file_list(group);
        const pass_outcome pass = read_all(group);
        rest(group, pass, &watch);
    }
}

/// Points the store at the bookmark directory, for the first plugin and after a restart that
/// changed it.
void set_bookmark_directory(const wchar_t *bm_dir) {
    static std::wstring current;
    static bool set = false;
    if (set && current == bm_dir) return;
    bookmark_set_directory(bm_dir);
    crc_init();
    current = bm_dir;
    set = true;
}

/// Adds a new, empty group to the plugin.
ft_bm *add_group(plugin *p) {
    const auto entries = static_cast<size_t>(p->bm_count) + 1;
    auto **groups = static_cast<ft_bm **>(realloc(p->ft.bm, entries * sizeof(ft_bm *)));
    if (groups == nullptr) return nullptr;
    p->ft.bm = groups;
    ft_bm *group = new_tail_group(p);
    if (group != nullptr) groups[p->bm_count++] = group;
    return group;
}

int start_worker(ft_bm *group) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kWorkerStackBytes);
    auto *thread = static_cast<pthread_t *>(malloc(sizeof(pthread_t)));
    int error = thread == nullptr ? ENOMEM : 0;
    if (error == 0) {
        const stop_signals_blocked blocked;
        error = pthread_create(thread, &attributes, process, group);
    }
    pthread_attr_destroy(&attributes);
    if (error == 0) {
        group->t = thread;
        return 0;
    }
    free(thread);
    logger(kLogError, "Error: could not start a worker for %ls : (%d)%s", group->p->ft.ft_dir,
           error, strerror(error));
    return 1;
}

}  // namespace

int ft_init(plugin *p, const wchar_t *bm_dir, int8_t connected) {
    _connected.store(connected, std::memory_order_relaxed);
    if (connected == 1 && ruv_alloc_record(p) != 0) return 1;
    set_bookmark_directory(bm_dir == nullptr ? L"" : bm_dir);
    free(p->ft.bm_file);
    p->ft.bm_file = bytes_to_wide(bm_filename, strlen(bm_filename), nullptr);
    bookmark_guard_small_files(conf.small_file_guard != 0);
    ft_bm *group = add_group(p);
    if (group == nullptr || update_file_list(group) < 0) {
        logger(kLogWarn, "Failed to update file list from: %ls", p->ft.ft_dir);
        return 1;
    }
    return start_worker(group);
}

void *process(void *group) {
    if (!wait_until_resumed()) return nullptr;
    while (is_executing()) {
        try {
            work(static_cast<ft_bm *>(group));
        } catch (const std::bad_alloc &) {
            logger(kLogError, "Error: out of memory");
            wait_while_executing(kUnreadablePauseMilliseconds);
        }
    }
    return nullptr;
}
