#include "filetail/rotation.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "core/execution.h"
#include "core/siemcollector_log.h"
#include "filetail/bookmark.h"
#include "filetail/identity.h"
#include "filetail/path_index.h"
#include "filetail/sight.h"

namespace {

/// A writer that has made no new file yet may still write to the renamed one for so long.
constexpr int64_t kLateWriterSeconds = 5;
/// A renamed file that cannot be read is given up after so long, or its successor would never come.
constexpr int64_t kPatienceSeconds = 60;

struct close_directory {
    void operator()(DIR *directory) const { closedir(directory); }
};
using directory_handle = std::unique_ptr<DIR, close_directory>;

/// What a search has found for one file of the group.
struct finding {
    bool wanted;
    char *path;  ///< owned; null: nothing so far
    struct stat st;
    uint32_t head;  ///< checksum of its first 256 bytes
    int error;      ///< why a file could not be examined, or 0
};

struct search {
    ft_bm *group;
    finding *found = nullptr;  ///< one for each file of the group; null while none is wanted
    path_index by_inode = {};
    path_index by_head = {};
    uint64_t least = UINT64_MAX;  ///< smallest position that is searched by content
    bool complete = true;
};

uint64_t hash_of(uint64_t number) {
    return path_hash(reinterpret_cast<const char *>(&number), sizeof(number));
}

int64_t seconds_of(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec;
}

// True when `path` leads to the file that was last looked at, or when nobody can tell just now.
bool leads_to(const char *path, const file_sight &sight) {
    struct stat st;
    if (stat(path, &st) == 0) return is_inode(st, sight);
    return errno != ENOENT && errno != ENOTDIR;
}

// True while something that fails may still come right.
bool is_patient(fdesc *file) {
    const int64_t now = seconds_of(CLOCK_MONOTONIC);
    if (file->failing_since == 0) file->failing_since = now;
    return now - file->failing_since < kPatienceSeconds;
}

void give_up(const fdesc *file, const char *path) {
    const uint64_t left = file->sight.size > file->l ? file->sight.size - file->l : 0;
    if (left == 0) return;
    logger(kLogWarn, "Lost the unread rest of renamed file: %s: %" PRIu64 " byte(s)", path, left);
}

void forget_drain(fdesc *file) {
    free(file->drain);
    file->drain = nullptr;
    file->moved = file->final = file->failed = file->settled = 0;
    file->failing_since = 0;
    file->sight = {};
    file->sought = 1;
    file->sought_h = file->h;
    file->sought_l = file->l;
}

// The rest has been sent, or its file is gone: the file under the old name is a new one. Its record
// is written with its first event, for until then the old one tells more; unless the two files
// begin alike, so that the old one would count for the new one.
void begin_successor(fdesc *file) {
    forget_drain(file);
    file->l = 0;
    const int fd = open_regular(file->n);
    if (fd < 0) {
        if (errno == ENOENT) delete_bookmark(file->n);
        file->known = file->unsaved = 0;
        return;
    }
    const uint32_t head = head_checksum(fd);
    const bool alike =
        head == file->h || is_grown_small_file(file->n, file->sought_h, file->sought_l);
    file->h = head;
    if (alike || file->unsaved) update_bookmark_at(fd, file, 0);
    close(fd);
}

// True when the writer has gone over to a file under the old name.
bool has_successor(const fdesc *file) {
    struct stat st;
    return stat(file->n, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

// True when no file stands under the old name, and nothing has happened to the renamed one lately.
bool is_abandoned(const fdesc *file, const struct stat &renamed) {
    struct stat st;
    if (stat(file->n, &st) == 0 || errno != ENOENT) return false;
    const int64_t quiet = seconds_of(CLOCK_REALTIME) - renamed.st_ctim.tv_sec;
    return quiet < 0 || quiet >= kLateWriterSeconds;
}

// Ends a drain that is done. While the file under the old name is empty the writer may still have
// the renamed one open; once it is not, what the renamed one holds is all there will be, and its
// last event needs no delimiter any more.
void judge_drain(fdesc *file) {
    // In this order: what a writer added before it went over is seen.
    const bool over = has_successor(file);
    struct stat st;
    if (stat(file->drain, &st) != 0 || !is_inode(st, file->sight)) return;  // searched for again
    if (file->failed && !is_patient(file)) {
        give_up(file, file->drain);
        begin_successor(file);
        return;
    }
    if (!file->failed) file->failing_since = 0;
    const bool grown = static_cast<uint64_t>(st.st_size) != file->sight.size;
    if (grown) file->final = 0;
    if (grown || !file->at_end || (!over && !is_abandoned(file, st))) return;
    if (file->l < file->sight.size && !file->final) {
        file->final = 1;
        return;
    }
    give_up(file, file->drain);
    begin_successor(file);
}

void want(search *s, int32_t i) {
    fdesc *file = s->group->f[i];
    file->moved = 1;
    if (!s->found) {
        const auto files = static_cast<size_t>(s->group->fc);
        s->found = static_cast<finding *>(calloc(files, sizeof(finding)));
        if (!s->found) return;
    }
    const bool seen = file->sight.inode != 0;
    const bool added = seen ? path_index_add(&s->by_inode, hash_of(file->sight.inode), i)
                            : path_index_add(&s->by_head, hash_of(file->h), i);
    s->found[i].wanted = added;
    s->complete &= added;
    if (!seen && file->l < s->least) s->least = file->l;
}

// Of several files that hold the text, copies of each other, the longest has most to offer.
void keep(finding *found, const char *path, const struct stat &st, uint32_t head) {
    if (found->path && st.st_size <= found->st.st_size) return;
    char *copy = strdup(path);
    if (!copy) return;
    free(found->path);
    found->path = copy;
    found->st = st;
    found->head = head;
}

// The inode number is that of the file that was seen; another file may have got it since.
void examine_inode(search *s, int32_t i, const char *path, const struct stat &st) {
    const fdesc *file = s->group->f[i];
    if (!is_inode(st, file->sight)) return;
    const int fd = open_renamed(path);
    if (fd < 0) {
        s->found[i].error = errno;
        return;
    }
    const uint32_t head = head_checksum(fd);
    close(fd);
    if (head == file->h || is_grown_small_file(path, file->h, file->l)) {
        keep(&s->found[i], path, st, head);
    }
}

void examine_content(search *s, const char *path, const struct stat &st) {
    if (s->by_head.used == 0 || static_cast<uint64_t>(st.st_size) < s->least) return;
    const int fd = open_renamed(path);
    if (fd < 0) {
        // What nobody but its owner may read is no log of ours; want of descriptors passes.
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) s->complete = false;
        return;
    }
    uint32_t cursor = 0;
    const uint32_t head = head_checksum(fd);
    for (int32_t i; (i = path_index_next(&s->by_head, hash_of(head), &cursor)) >= 0;) {
        if (is_predecessor(fd, static_cast<uint64_t>(st.st_size), s->group->f[i])) {
            keep(&s->found[i], path, st, head);
        }
    }
    close(fd);
}

void examine(search *s, const char *path, uint64_t inode) {
    uint32_t cursor = 0;
    const bool known = path_index_next(&s->by_inode, hash_of(inode), &cursor) >= 0;
    if (!known && s->by_head.used == 0) return;
    struct stat st;
    // Opening anything else might wait, or wake somebody who does.
    if (lstat(path, &st) != 0 || !S_ISREG(st.st_mode)) return;
    cursor = 0;
    for (int32_t i; (i = path_index_next(&s->by_inode, hash_of(inode), &cursor)) >= 0;) {
        examine_inode(s, i, path, st);
    }
    examine_content(s, path, st);
}

// One reading of the directory serves all moved files, or a rotation of many would cost their
// square.
void read_directory(search *s, const char *directory, const char *filter) {
    const directory_handle handle(opendir(directory));
    if (!handle) {
        s->complete = false;
        return;
    }
    char path[PATH_MAX];
    const dirent *entry;
    while (errno = 0, is_running() && (entry = readdir(handle.get())) != nullptr) {
        if (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN) continue;
        if (fnmatch(filter, entry->d_name, 0) != FNM_NOMATCH) continue;
        snprintf(path, sizeof(path), "%s%s", directory, entry->d_name);
        examine(s, path, entry->d_ino);
    }
    s->complete &= errno == 0 && is_running();
}

void begin_drain(fdesc *file, finding *found) {
    free(file->drain);
    file->drain = found->path;
    found->path = nullptr;
    file->moved = file->at_end = file->failed = file->final = file->settled = 0;
    file->failing_since = 0;
    take_identity(&file->sight, found->st);
    file->sight.head = found->head;
    logger(file->sight.size > file->l ? kLogInfo : kLogDebug,
           "Reading the rest of renamed file: %s", file->drain);
}

// What has not been found is somewhere else or gone: the rules of the bookmark decide.
void no_predecessor(fdesc *file) {
    file->moved = file->failed = 0;
    file->failing_since = 0;
    if (file->drain) {
        give_up(file, file->drain);
        begin_successor(file);
    } else if (file->sight.inode != 0) {
        file->sight = {};
        file->settled = 0;
    } else {
        file->sought = 1;
        file->sought_h = file->h;
        file->sought_l = file->l;
    }
}

void conclude(fdesc *file, finding *found) {
    if (found->path) {
        const bool rest = static_cast<uint64_t>(found->st.st_size) > file->l;
        if (!rest && file->d == kOnlyRecorded) {
            file->moved = 0;  // nothing to read, and nothing under the old name
            return;
        }
        const bool over = !rest && has_successor(file) && stat(found->path, &found->st) == 0 &&
                          static_cast<uint64_t>(found->st.st_size) <= file->l;
        begin_drain(file, found);
        if (over) begin_successor(file);
        return;
    }
    if (found->error != 0) {
        if (is_patient(file)) return;
        logger(kLogWarn, "Cannot read the file that was renamed from: %s: (%d)%s", file->n,
               found->error, strerrordesc_np(found->error));
    }
    no_predecessor(file);
}

void run_search(search *s, const char *directory, const char *filter) {
    if (!s->found) return;
    read_directory(s, directory, filter);
    for (int32_t i = 0; i < s->group->fc && s->complete; ++i) {
        if (s->found[i].wanted) conclude(s->group->f[i], &s->found[i]);
    }
}

void end_search(search *s) {
    for (int32_t i = 0; s->found && i < s->group->fc; ++i) free(s->found[i].path);
    free(s->found);
    path_index_free(&s->by_inode);
    path_index_free(&s->by_head);
}

}  // namespace

void rotation_watch(ft_bm *group, const char *directory, const char *filter) {
    search s{group};
    for (int32_t i = 0; i < group->fc; ++i) {
        fdesc *file = group->f[i];
        if (file->drain) judge_drain(file);
        if (file->moved || (file->sight.inode != 0 && !leads_to(tail_path(file), file->sight))) {
            want(&s, i);
        }
    }
    run_search(&s, directory, filter);
    end_search(&s);
}

void rotation_resolve(ft_bm *group, const char *directory, const char *filter) {
    search s{group};
    for (int32_t i = 0; i < group->fc; ++i) {
        // One that is known by its record only was searched for just now.
        if (group->f[i]->moved && group->f[i]->d != kOnlyRecorded) want(&s, i);
    }
    run_search(&s, directory, filter);
    for (int32_t i = 0; s.found && i < group->fc; ++i) {
        if (s.found[i].wanted && !group->f[i]->moved) get_bookmark(group->f[i]);
    }
    end_search(&s);
}
