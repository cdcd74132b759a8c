#include "filetail/discovery.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "config/plugin_record.h"
#include "config/siem_config.h"
#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/bookmark.h"
#include "filetail/bookmark_format.h"
#include "filetail/path_index.h"
#include "filetail/rotation.h"
#include "filetail/ruv.h"
#include "filetail/sight.h"

struct tail_lookup {
    path_index tracked;  // path -> position in the group's list
    path_index refused;  // paths that were refused with an ERROR; the number means nothing
};

namespace {

constexpr int32_t kFirstRoom = 16;  // files
constexpr char kDefaultLog[] = "/var/log/velmor/siem_collector.log";

struct free_text {
    void operator()(char *text) const { std::free(text); }
};
using text = std::unique_ptr<char, free_text>;

struct close_directory {
    void operator()(DIR *directory) const { closedir(directory); }
};
using directory_handle = std::unique_ptr<DIR, close_directory>;

struct free_file {
    void operator()(fdesc *file) const { free_fdesc(file); }
};
using new_file = std::unique_ptr<fdesc, free_file>;

uint64_t hash_of(const char *path) {
    return path_hash(path, strlen(path));
}

fdesc *find_tracked(const ft_bm *group, const char *path) {
    const uint64_t hash = hash_of(path);
    uint32_t cursor = 0;
    for (int32_t i; (i = path_index_next(&group->lookup->tracked, hash, &cursor)) >= 0;) {
        if (strcmp(group->f[i]->n, path) == 0) return group->f[i];
    }
    return nullptr;
}

bool append_file(ft_bm *group, fdesc *file) {
    if (group->fc == group->room) {
        const int32_t room = group->room ? group->room * 2 : kFirstRoom;
        auto *list = static_cast<fdesc **>(
            std::realloc(group->f, static_cast<size_t>(room) * sizeof(fdesc *)));
        if (!list) return false;
        group->f = list;
        group->room = room;
    }
    if (!path_index_add(&group->lookup->tracked, hash_of(file->n), group->fc)) return false;
    group->f[group->fc++] = file;
    return true;
}

bool has_path(const wchar_t *wide, const char *otherwise, const char *suffix,
              std::string_view path) {
    const text narrow(wide ? wstrtostr(wide) : strdup(otherwise));
    if (!narrow || path.substr(0, strlen(narrow.get())) != narrow.get()) return false;
    path.remove_prefix(strlen(narrow.get()));
    return path.empty() || path == suffix;
}

bool is_open_as(int fd, const struct stat &st) {
    struct stat other;
    return fstat(fd, &other) == 0 && other.st_dev == st.st_dev && other.st_ino == st.st_ino;
}

// Tailing what the collector itself writes would never come to an end: each event makes the next.
// The log is also known by name, since trimming puts other files there for a moment.
bool is_own_file(const char *path, const struct stat &st) {
    return is_open_as(STDERR_FILENO, st) || is_open_as(STDOUT_FILENO, st) ||
           is_bookmark_file(st.st_dev, st.st_ino) || strcmp(path, bm_filename) == 0 ||
           has_path(conf.log, kDefaultLog, ".tmp", path);
}

// True when the path is too long for a record. It is reported once and passed over from then on.
bool is_refused(ft_bm *group, const char *path) {
    if (strlen(path) <= kBookmarkPathLimit) return false;
    const uint64_t hash = hash_of(path);
    uint32_t cursor = 0;
    if (path_index_next(&group->lookup->refused, hash, &cursor) >= 0) return true;
    path_index_add(&group->lookup->refused, hash, 0);
    logger(kLogError, "Error: path is longer than %zu bytes. Invalid file %s", kBookmarkPathLimit,
           path);
    return true;
}

fdesc *make_fdesc(ft_bm *group, const char *path) {
    auto *file = static_cast<fdesc *>(std::calloc(1, sizeof(fdesc)));
    if (!file) return nullptr;
    file->p = group;
    file->n = strdup(path);
    if (file->n) return file;
    std::free(file);
    return nullptr;
}

bool was_seen(const fdesc *file) {
    return file->sight.inode != 0;
}

// Where a file without a bookmark begins: at its end, unless it is to be read from the top.
uint64_t start_of_new_file(const ft_bm *group, const fdesc *file) {
    struct stat st;
    if (group->p->ft.ft_start_top) return 0;
    if (was_seen(file)) return file->sight.size;
    if (stat(file->n, &st) == 0) return static_cast<uint64_t>(st.st_size);
    logger(kLogError, "Error: unable to get file length. Invalid file %s", file->n);
    return 0;
}

// True when a look-up that told nothing may tell something at the next scan. A bookmark file that
// cannot be used at all must not keep the events back.
bool is_passing_failure(int reason) {
    return reason == EMFILE || reason == ENFILE || reason == ENOMEM || reason == EIO;
}

// What is known to be no file without asking for its status.
bool is_never_tailed(const dirent *entry) {
    return entry->d_type != DT_REG && entry->d_type != DT_LNK && entry->d_type != DT_UNKNOWN;
}

struct scan {
    text directory;  // ends in "/"
    text filter;
    text path;  // the directory, with room for a name behind it
    size_t prefix;
};

bool begin_scan(const plugin *owner, scan *what) {
    what->directory.reset(wstrtostr(owner->ft.ft_dir));
    what->filter.reset(wstrtostr(owner->ft.ft_filter));
    if (!what->directory || !what->filter) return false;
    what->prefix = strlen(what->directory.get());
    what->path.reset(static_cast<char *>(std::malloc(what->prefix + NAME_MAX + 1)));
    if (!what->path) return false;
    memcpy(what->path.get(), what->directory.get(), what->prefix);
    return true;
}

void scan_entry(ft_bm *group, const scan &what, const dirent *entry) {
    if (log_enabled(kLogDebug)) {
        logger(kLogDebug, "Adding file: (%jd)%s because it did match the filter: %s",
               static_cast<intmax_t>(entry->d_off), entry->d_name, what.filter.get());
    }
    const size_t length = strlen(entry->d_name);
    if (is_never_tailed(entry) || length > NAME_MAX) return;
    memcpy(what.path.get() + what.prefix, entry->d_name, length + 1);
    add_new_file(group, what.path.get());
}

// Reads the directory to its end. Returns the number of matching entries; *complete tells whether
// every entry was seen. A stop ends the reading: the first look at many files takes seconds.
int scan_directory(ft_bm *group, const scan &what, DIR *directory, bool *complete) {
    int matched = 0;
    const dirent *entry;
    while (errno = 0, is_running() && (entry = readdir(directory)) != nullptr) {
        if (fnmatch(what.filter.get(), entry->d_name, 0) != FNM_NOMATCH) {
            scan_entry(group, what, entry);
            ++matched;
        } else if (log_enabled(kLogDiag)) {
            logger(kLogDiag, "Did not add file: (%jd)%s because it did not match the filter: %s",
                   static_cast<intmax_t>(entry->d_off), entry->d_name, what.filter.get());
        }
    }
    *complete = errno == 0 && is_running();
    return matched;
}

void remove_file(fdesc *file) {
    logger(kLogDebug, "Removing %s because it was not detected in the directory", file->n);
    delete_bookmark(file->n);
    free_fdesc(file);
}

// True when the path leads to a file after all. Reading a directory may miss a name that was taken
// away and made again meanwhile, as a rotation does; such a file keeps its bookmark, whose checksum
// tells whether it is a new one, and is not taken for one that is first seen.
bool is_there_again(const fdesc *file) {
    struct stat st;
    return stat(file->n, &st) == 0 && S_ISREG(st.st_mode);
}

// Drops the files that the scan did not meet. A file whose renamed predecessor is still being read
// stays until that is done.
void drop_vanished(ft_bm *group) {
    int32_t kept = 0;
    bool just_removed = false;
    for (int32_t i = 0; i < group->fc; ++i) {
        fdesc *file = group->f[i];
        // Kept: the file behind a removed one stays until the next scan even when it has vanished
        // too, because closing the gap moves it into a place that this scan has already passed.
        if (file->d == kOnlyRecorded && !file->drain && !file->moved) {
            free_fdesc(file);  // it was not seen to vanish, so that its record stays
            continue;
        }
        const bool remove = file->d == 1 && !file->drain && !just_removed && !is_there_again(file);
        just_removed = remove;
        if (remove) {
            remove_file(file);
        } else {
            group->f[kept++] = file;
        }
    }
    if (kept == group->fc) return;
    group->fc = kept;
    path_index_clear(&group->lookup->tracked);
    for (int32_t i = 0; i < kept; ++i) {
        path_index_add(&group->lookup->tracked, hash_of(group->f[i]->n), i);
    }
}

struct record_filter {
    ft_bm *group;
    const scan *what;
};

// Adds a file that this plugin would tail and does not, from its record. Memory only: the caller
// holds the store's lock.
void take_record(void *arg, const bookmark_record &record) {
    const auto *filter = static_cast<const record_filter *>(arg);
    const scan &what = *filter->what;
    char path[kBookmarkPathLimit + 1];
    memcpy(path, record.path, record.path_length);
    path[record.path_length] = '\0';
    if (record.path_length <= what.prefix ||
        strncmp(path, what.directory.get(), what.prefix) != 0 || strchr(path + what.prefix, '/') ||
        fnmatch(what.filter.get(), path + what.prefix, 0) == FNM_NOMATCH ||
        find_tracked(filter->group, path)) {
        return;
    }
    new_file file(make_fdesc(filter->group, path));
    if (!file) return;
    file->l = record.location;
    file->h = record.head;
    file->t = record.tail;
    file->known = 1;
    file->d = kOnlyRecorded;
    if (append_file(filter->group, file.get())) file.release();
}

// A file may have been renamed while no daemon ran, with nothing under its old name since: what is
// left of it is known by its record only.
void adopt_left_behind(ft_bm *group, const scan &what) {
    record_filter filter{group, &what};
    if (group->adopted || bookmark_each(take_record, &filter) != 0) return;
    group->adopted = 1;
    for (int32_t i = 0; i < group->fc; ++i) {
        struct stat st;
        fdesc *file = group->f[i];
        file->moved |= file->d == kOnlyRecorded && lstat(file->n, &st) != 0 && errno == ENOENT;
    }
}

}  // namespace

ft_bm *new_tail_group(plugin *owner) {
    auto *group = static_cast<ft_bm *>(std::calloc(1, sizeof(ft_bm)));
    auto *lookup = static_cast<tail_lookup *>(std::calloc(1, sizeof(tail_lookup)));
    if (!group || !lookup) {
        std::free(group);
        std::free(lookup);
        return nullptr;
    }
    group->p = owner;
    group->lookup = lookup;
    return group;
}

void free_tail_group(ft_bm *group) {
    if (!group) return;
    for (int32_t i = 0; i < group->fc; ++i) free_fdesc(group->f[i]);
    std::free(group->f);
    path_index_free(&group->lookup->tracked);
    path_index_free(&group->lookup->refused);
    std::free(group->lookup);
    std::free(group->t);
    std::free(group);
}

void free_fdesc(fdesc *file) {
    if (!file) return;
    std::free(file->n);
    std::free(file->drain);
    std::free(file);
}

int update_file_list(ft_bm *group) {
    scan what;
    if (!begin_scan(group->p, &what)) return -1;
    for (int32_t i = 0; i < group->fc; ++i) {
        if (group->f[i]->d != kOnlyRecorded) group->f[i]->d = 1;
    }
    directory_handle directory(opendir(what.directory.get()));
    if (!directory) {
        logger(kLogWarn, "Failed to get list of files for: %s", what.directory.get());
        return -1;
    }
    logger(kLogDebug, "Getting files from dir %s with filter %s", what.directory.get(),
           what.filter.get());
    bool complete = false;
    const bool drains = conf.rotation_drain == 1;
    bookmark_follow_renames(drains);
    const int matched = scan_directory(group, what, directory.get(), &complete);
    directory.reset();
    if (complete) {
        if (drains) {
            adopt_left_behind(group, what);
            rotation_watch(group, what.directory.get(), what.filter.get());
        }
        drop_vanished(group);
    } else if (is_running()) {
        // What was not seen may still be there: nothing is dropped on half a list.
        logger(kLogWarn, "Failed to get list of files for: %s", what.directory.get());
    }
    bookmark_guard_small_files(conf.small_file_guard == 1);
    verify_bookmark_file(group);
    if (complete && drains) {
        rotation_resolve(group, what.directory.get(), what.filter.get());
    }
    return matched;
}

fdesc *add_new_file(ft_bm *group, const char *path) {
    if (fdesc *known = find_tracked(group, path)) {
        known->d = 0;
        return known;
    }
    if (is_refused(group, path) || _connected.load(std::memory_order_relaxed) == 0) return nullptr;
    struct stat st;
    if (stat(path, &st) == 0 && (!S_ISREG(st.st_mode) || is_own_file(path, st))) return nullptr;
    new_file file(make_fdesc(group, path));
    if (!file) return nullptr;
    const int found = get_bookmark(file.get());
    const bool try_again =
        (!was_seen(file.get()) && !file->moved) || (found < 0 && is_passing_failure(errno));
    if (found != 1 && !file->moved) file->l = start_of_new_file(group, file.get());
    logger(kLogInfo, "Loaded file for tailing: %s starting at byte: %" PRIu64, path,
           file->moved ? 0 : file->l);
    if (try_again) {
        logger(kLogError, "Error: unable to read from file. Invalid file %s", path);
        return nullptr;
    }
    // What the record says of a file that was renamed is needed until that has been found.
    if (!file->moved) update_bookmark_as_seen(file.get());
    return append_file(group, file.get()) ? file.release() : nullptr;
}
