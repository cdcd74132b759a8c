#include "filetail/bookmark.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "core/utils.h"
#include "filetail/bookmark_file.h"
#include "filetail/bookmark_format.h"
#include "filetail/identity.h"
#include "filetail/sight.h"

lock_word bm_file_lock{0};
char bm_filename[256];

namespace {

bookmark_file g_file;             // guarded by bm_file_lock
bool g_path_was_cut;              // bm_filename is not the whole path; guarded by bm_file_lock
std::atomic<bool> g_small_files;  // opt-in small_file_guard
std::atomic<bool> g_follow;       // opt-in rotation_drain

enum class finding { kRecord, kNoRecord, kNoFile, kUnknown };

// Opens the bookmark file; the caller holds the lock. A path that did not fit its 255 bytes must
// not lead to a file of another name.
int open_bookmarks() {
    if (g_path_was_cut) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return bookmark_file_open(&g_file, bm_filename);
}

// The text of an error number; errors are rare, so that the buffer is the thread's.
const char *error_text(int number) {
    static thread_local char text[128];
    return strerror_r(number, text, sizeof(text));
}

// What became of a change of the bookmark file.
struct change_result {
    int reason;   // 0, or the error number
    bool opened;  // false: it failed before anything could be changed
};

void log_failure(const change_result &result) {
    if (result.reason == 0) return;
    if (result.opened) {
        logger(kLogError, "Error writing bookmark file (%s): %s", bm_filename,
               error_text(result.reason));
    } else {
        logger(kLogError, "Error opening bookmark file (%s) for update: %s", bm_filename,
               error_text(result.reason));
    }
}

// Finds the path's record and puts `record` in its place, or behind the last one.
change_result store_record(const char *path, size_t length, const char record[kBookmarkRecord]) {
    const spinlock_guard guard(bm_file_lock);
    if (open_bookmarks() != 0) return {errno, false};
    bookmark_hit hit;
    const int found = bookmark_file_find(&g_file, path, length, &hit);
    if (found < 0 || bookmark_file_write(&g_file, found ? hit.slot : -1, record) != 0) {
        return {errno, true};
    }
    return {0, true};
}

// Removes the path's record; 1 when there was one.
int drop_record(const char *path, change_result *result) {
    const spinlock_guard guard(bm_file_lock);
    *result = {0, open_bookmarks() == 0};
    bookmark_hit hit;
    const int found = result->opened ? bookmark_file_find(&g_file, path, strlen(path), &hit) : -1;
    if (found < 0 || (found > 0 && bookmark_file_remove(&g_file, &hit) != 0)) {
        result->reason = errno;
    }
    return found;
}

int write_record(const fdesc *bm) {
    const size_t length = strlen(bm->n);
    char record[kBookmarkRecord];
    if (!bookmark_format(record, bm->l, bm->h, bm->t, bm->n, length)) {
        if (!bm->unsaved) {
            logger(kLogError, "Error: path is longer than %zu bytes, no bookmark written: %s",
                   kBookmarkPathLimit, bm->n);
        }
        return -1;
    }
    const change_result result = store_record(bm->n, length, record);
    log_failure(result);
    if (result.reason != 0) return -1;
    if (log_enabled(kLogDebug)) {
        logger(kLogDebug, "Wrote '%.*s' to bookmark file", static_cast<int>(kBookmarkRecord - 1),
               record);
    }
    return 0;
}

int save(fdesc *bm) {
    const int result = write_record(bm);
    bm->known = 1;
    bm->sought = 0;  // that was about the record before
    bm->unsaved = result != 0;
    return result;
}

// Reads the record of `bm` into `hit`. 1 found, 0 none, -1 the bookmark file cannot be used now.
int load_record(const fdesc *bm, bookmark_hit *hit) {
    int found;
    int reason = 0;
    {
        const spinlock_guard guard(bm_file_lock);
        found = open_bookmarks();
        if (found == 0) found = bookmark_file_find(&g_file, bm->n, strlen(bm->n), hit);
        if (found < 0) reason = errno;
    }
    if (found < 0) {
        logger(kLogError, "Error opening bookmark file (%s) for reading: (%d)%s", bm_filename,
               reason, error_text(reason));
        errno = reason;
    }
    return found;
}

void log_comparison(const fdesc *bm) {
    logger(kLogDebug, "Found file info in bookmark for: %s", bm->n);
    logger(kLogDebug, "\tFile location: bookmark - %" PRIu64 ", file size - %" PRIu64, bm->l,
           bm->sight.size);
    logger(kLogDebug, "\tFile head: bookmark - %u, file - %u", bm->h, bm->sight.head);
    logger(kLogDebug, "\tFile tail: bookmark - %u, file - %u", bm->t, bm->sight.tail);
}

void start_over(fdesc *bm) {
    bm->l = 0;
    // Kept: a file that became shorter is reported with the same words as one that begins
    // otherwise.
    logger(kLogInfo, "Started reading file over cause the start of the file didn't match: %s",
           bm->n);
    if (!g_follow.load(std::memory_order_relaxed)) return;
    // A position that counts without its record must not be taken for one in the file before.
    bm->h = bm->sight.head;
    bm->t = bm->sight.tail;
}

// The position may be that of a renamed file, which is to be searched for: not when that was done
// before, and not when the file at the path explains the record.
bool may_have_moved(const fdesc *bm) {
    if (!g_follow.load(std::memory_order_relaxed) || bm->drain) return false;
    if (bm->sought && bm->sought_h == bm->h && bm->sought_l == bm->l) return false;
    return !is_grown_small_file(bm->n, bm->h, bm->l);
}

void leave_position(fdesc *bm) {
    if (!may_have_moved(bm)) {
        start_over(bm);
        return;
    }
    bm->moved = 1;
    bm->sight = {};
    bm->settled = 0;
    logger(kLogDebug, "\tLooking for the file that was renamed from: %s", bm->n);
}

bool is_same_file(const fdesc *bm) {
    // A renamed file is known by its inode, whatever was added to a short beginning.
    if (bm->drain) return true;
    if (bm->sight.size < bm->l) return false;
    if (bm->sight.head == bm->h) return true;
    return g_small_files.load(std::memory_order_relaxed) &&
           is_grown_small_file(tail_path(bm), bm->h, bm->l);
}

// Decides between going on and starting over, from the location and checksums in `bm`.
// Kept: the tail checksum takes no part, although it is computed, stored and logged; the layout of
// the record, which others read, depends on it.
void resume_or_restart(fdesc *bm) {
    if (log_enabled(kLogDebug)) log_comparison(bm);
    if (is_same_file(bm)) {
        if (log_enabled(kLogInfo)) {
            logger(kLogInfo, "Resume reading file: %s starting at: %" PRIu64, bm->n, bm->l);
        }
    } else {
        leave_position(bm);
        if (bm->moved) return;
    }
    if (log_enabled(kLogDebug)) logger(kLogDebug, "\tFile location set to: %" PRIu64, bm->l);
}

// Without a record the position in memory stands, unless the file can no longer be the one that it
// was reached in: it is shorter than that, another file with another beginning, or the same one
// with a whole head that is no more what it was. Staying silent until it has grown past the
// position would lose what comes before.
bool is_stale_position(const fdesc *bm, const file_sight &before) {
    if (!bm->known || bm->l == 0 || bm->drain) return false;
    if (bm->sight.size < bm->l) return true;
    if (bm->sight.inode != before.inode) return bm->sight.head != bm->h;
    return before.size >= kHeadBytes && bm->sight.head != before.head;
}

finding look_up(fdesc *bm) {
    const file_sight before = bm->sight;
    const bool same_only = before.inode != 0 && g_follow.load(std::memory_order_relaxed);
    bm->moved = 0;
    switch (look_at(bm, same_only)) {
        case sight_result::kMissing:
            return finding::kNoFile;
        case sight_result::kUnknown:
            return finding::kUnknown;
        case sight_result::kOther:
            bm->moved = 1;
            errno = ESTALE;
            return finding::kUnknown;
        case sight_result::kSeen:
            break;
    }
    bookmark_hit hit;
    const int found = load_record(bm, &hit);
    if (found > 0 && !bm->unsaved) {
        bm->l = hit.record.location;
        bm->h = hit.record.head;
        bm->t = hit.record.tail;
        bm->known = 1;
    }
    const int reason = errno;
    if (found > 0) {
        resume_or_restart(bm);
    } else if (is_stale_position(bm, before)) {
        leave_position(bm);
    }
    errno = bm->moved ? ESTALE : reason;
    if (found < 0 || bm->moved) return finding::kUnknown;
    return found > 0 || bm->unsaved ? finding::kRecord : finding::kNoRecord;
}

// A bookmark that could not be written is written as soon as that is possible again, also when the
// file brings no further event.
void save_again(fdesc *bm) {
    const int fd = open_regular(tail_path(bm));
    if (fd < 0) return;
    update_bookmark_at(fd, bm, 0);
    close(fd);
}

}  // namespace

void bookmark_set_directory(const wchar_t *directory) {
    char *narrow = wstrtostr(directory);
    char path[sizeof(bm_filename)];
    const int length = snprintf(path, sizeof(path), "%s/%s", narrow ? narrow : "", "ft_bookmark");
    free(narrow);
    const bool was_cut = length >= static_cast<int>(sizeof(path));
    const spinlock_guard guard(bm_file_lock);
    if (strcmp(path, bm_filename) == 0 && was_cut == g_path_was_cut) return;
    bookmark_file_close(&g_file);
    g_path_was_cut = was_cut;
    memcpy(bm_filename, path, sizeof(path));
}

void bookmark_teardown() {
    const spinlock_guard guard(bm_file_lock);
    bookmark_file_close(&g_file);
}

void bookmark_follow_renames(bool on) {
    g_follow.store(on, std::memory_order_relaxed);
}

void bookmark_guard_small_files(bool on) {
    g_small_files.store(on, std::memory_order_relaxed);
}

int update_bookmark(FILE *f, fdesc *bm) {
    const off_t position = ftello(f);
    return update_bookmark_at(fileno(f), bm, position < 0 ? 0 : static_cast<uint64_t>(position));
}

int update_bookmark_fd(int fd, fdesc *bm) {
    const off_t position = lseek(fd, 0, SEEK_CUR);
    return update_bookmark_at(fd, bm, position < 0 ? 0 : static_cast<uint64_t>(position));
}

int update_bookmark_at(int fd, fdesc *bm, uint64_t position) {
    struct stat st;
    if (!read_head_checksum(fd, &bm->h)) {
        bm->unsaved = 1;
        return -1;
    }
    // The path may lead to the next file already; a tail that is to prove something must be that of
    // the file that was read.
    const bool known = g_follow.load(std::memory_order_relaxed) ? fstat(fd, &st) == 0
                                                                : stat(tail_path(bm), &st) == 0;
    const uint64_t size = known ? static_cast<uint64_t>(st.st_size) : 0;
    bm->t = tail_checksum(fd, size, position);
    return save(bm);
}

int update_bookmark_as_seen(fdesc *bm) {
    bm->h = bm->sight.head;
    bm->t = bm->sight.tail;
    return save(bm);
}

int get_bookmark(fdesc *bm) {
    switch (look_up(bm)) {
        case finding::kRecord:
            return 1;
        case finding::kUnknown:
            return -1;
        default:
            return 0;
    }
}

int delete_bookmark(const char *path) {
    change_result result = {};
    const int found = drop_record(path, &result);
    if (found > 0) logger(kLogDebug, "Delete '%s' from bookmark file", path);
    log_failure(result);
    return result.reason == 0 ? 0 : -1;
}

void verify_bookmark_file(ft_bm *group) {
    bool any_unlisted = false;
    for (int32_t i = 0; i < group->fc; ++i) {
        if (!is_running()) return;  // nobody will read on; many files take seconds
        fdesc *bm = group->f[i];
        if (bm->d == kOnlyRecorded && !bm->drain) continue;  // its record is all there is
        bm->unlisted = get_bookmark(bm) == 0;
        any_unlisted |= bm->unlisted;
        if (bm->unsaved && !bm->unlisted && !bm->moved) save_again(bm);
    }
    for (int32_t i = 0; any_unlisted && i < group->fc; ++i) {
        if (group->f[i]->unlisted) delete_bookmark(group->f[i]->n);
    }
}

int bookmark_each(void (*visit)(void *arg, const bookmark_record &record), void *arg) {
    const spinlock_guard guard(bm_file_lock);
    return open_bookmarks() == 0 ? bookmark_file_each(&g_file, visit, arg) : -1;
}

bool is_bookmark_file(dev_t device, ino_t inode) {
    const spinlock_guard guard(bm_file_lock);
    struct stat st;
    if (g_file.fd < 0 ? lstat(bm_filename, &st) != 0 : fstat(g_file.fd, &st) != 0) return false;
    return st.st_dev == device && st.st_ino == inode;
}
