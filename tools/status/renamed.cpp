#include "tools/status/renamed.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <memory>

#include "filetail/identity.h"
#include "filetail/owned_descriptor.h"
#include "filetail/sight.h"

namespace {

void examine(const std::string &path, const std::vector<left_behind> &bookmarks,
             std::vector<renamed_file> *longest) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;
    const owned_descriptor fd(open_renamed(path.c_str()));
    if (fd.get() < 0) return;
    const auto size = static_cast<uint64_t>(info.st_size);
    const uint32_t head = head_checksum(fd.get());
    for (size_t i = 0; i < bookmarks.size(); i++) {
        const stored_position &at = bookmarks[i].position;
        if (at.head != head || size <= (*longest)[i].size) continue;
        fdesc known{};
        known.l = at.location;
        known.h = at.head;
        known.t = at.tail;
        if (!is_predecessor(fd.get(), size, &known)) continue;
        (*longest)[i] = {path, bookmarks[i].path, size, info.st_mtime};
    }
}

}  // namespace

std::vector<renamed_file> find_renamed(const std::string &directory, const std::string &filter,
                                       const std::vector<left_behind> &bookmarks) {
    std::vector<renamed_file> longest(bookmarks.size());
    std::vector<renamed_file> with_rest;
    if (bookmarks.empty()) return with_rest;
    const std::unique_ptr<DIR, int (*)(DIR *)> dir(opendir(directory.c_str()), &closedir);
    if (dir == nullptr) return with_rest;
    while (const dirent *entry = readdir(dir.get())) {
        if (fnmatch(filter.c_str(), entry->d_name, 0) == 0) continue;
        examine(directory + entry->d_name, bookmarks, &longest);
    }
    for (size_t i = 0; i < longest.size(); i++) {
        if (longest[i].size > bookmarks[i].position.location) with_rest.push_back(longest[i]);
    }
    return with_rest;
}
