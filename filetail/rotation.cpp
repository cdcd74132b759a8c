#include "filetail/rotation.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/siemcollector_log.h"
#include "filetail/bookmark.h"
#include "filetail/path_index.h"
#include "filetail/sight.h"

namespace {

struct close_directory {
    void operator()(DIR *directory) const { closedir(directory); }
};
using directory_handle = std::unique_ptr<DIR, close_directory>;

uint64_t hash_of(uint64_t inode) {
    return path_hash(reinterpret_cast<const char *>(&inode), sizeof(inode));
}

bool is_inode(const struct stat &st, const file_sight &sight) {
    return st.st_ino == sight.inode && st.st_dev == sight.device;
}

// True when `path` leads to the file that was last looked at.
bool leads_to(const char *path, const file_sight &sight) {
    struct stat st;
    return stat(path, &st) == 0 && is_inode(st, sight);
}

// True when the renamed file has bytes left to read and is the one that the bookmark was written
// for: an inode number may have gone to another file since.
bool has_rest(const fdesc *file, const char *path) {
    struct stat st;
    if (lstat(path, &st) != 0 || !S_ISREG(st.st_mode) || !is_inode(st, file->sight) ||
        static_cast<uint64_t>(st.st_size) <= file->l) {
        return false;
    }
    const int fd = open_regular(path);
    if (fd < 0) return false;
    const uint32_t head = head_checksum(fd);
    close(fd);
    return head == file->h || is_grown_small_file(path, file->h, file->l);
}

void begin_drain(fdesc *file, const char *path) {
    char *copy = strdup(path);
    if (!copy) return;
    free(file->drain);
    file->drain = copy;
    file->at_end = 0;
    file->settled = 0;
    logger(kLogInfo, "Reading the rest of renamed file: %s", path);
}

// The rest has been sent, or its file is gone: the file under the old name is a new one.
void end_drain(fdesc *file) {
    free(file->drain);
    file->drain = nullptr;
    file->sight = {};
    file->settled = 0;
    const int fd = open_regular(file->n);
    if (fd < 0) return;
    file->l = 0;
    update_bookmark_at(fd, file, 0);
    close(fd);
}

// One reading of the directory serves all moved files, or a rotation of many would cost their
// square. `moved` maps inode numbers to positions in the group's list.
void find_renamed(ft_bm *group, const path_index &moved, const char *directory,
                  const char *filter) {
    const directory_handle handle(opendir(directory));
    if (!handle) return;
    char path[PATH_MAX];
    while (const dirent *entry = readdir(handle.get())) {
        uint32_t cursor = 0;
        for (int32_t i; (i = path_index_next(&moved, hash_of(entry->d_ino), &cursor)) >= 0;) {
            if (fnmatch(filter, entry->d_name, 0) != FNM_NOMATCH) continue;
            snprintf(path, sizeof(path), "%s%s", directory, entry->d_name);
            if (has_rest(group->f[i], path)) begin_drain(group->f[i], path);
        }
    }
}

}  // namespace

void rotation_watch(ft_bm *group, const char *directory, const char *filter) {
    path_index moved = {};
    for (int32_t i = 0; i < group->fc; ++i) {
        fdesc *file = group->f[i];
        if (file->drain && file->at_end) end_drain(file);
        if (file->sight.inode != 0 && !leads_to(tail_path(file), file->sight)) {
            path_index_add(&moved, hash_of(file->sight.inode), i);
        }
    }
    if (moved.used > 0) find_renamed(group, moved, directory, filter);
    path_index_free(&moved);
    for (int32_t i = 0; i < group->fc; ++i) {
        fdesc *file = group->f[i];
        if (file->drain && !leads_to(file->drain, file->sight)) end_drain(file);
    }
}
