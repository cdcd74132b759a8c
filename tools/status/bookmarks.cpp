#include "tools/status/bookmarks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "filetail/bookmark_format.h"

namespace {

// The whole file in one string, or false with errno.
bool read_all(const std::string &path, std::string *bytes) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(fd);
        errno = EINVAL;
        return false;
    }
    char block[64 * 1024];
    ssize_t got;
    while ((got = read(fd, block, sizeof block)) > 0) bytes->append(block, got);
    const int error = errno;
    close(fd);
    errno = error;
    return got == 0;
}

bool digits(const char *at) {
    for (int i = 0; i < 15; i++) {
        if (at[i] < '0' || at[i] > '9') return false;
    }
    return true;
}

// What a writer of this format always leaves behind.
bool well_formed(const char *bytes) {
    if (!digits(bytes) || !digits(bytes + 16) || !digits(bytes + 32)) return false;
    if (bytes[15] != '|' || bytes[31] != '|' || bytes[47] != '|') return false;
    return bytes[kBookmarkRecord - 1] == '\n' && bytes[kBookmarkPathOffset] == '/';
}

std::string shown_path(const char *bytes, size_t length) {
    if (length <= kBookmarkPathOffset) return "";
    std::string path(bytes + kBookmarkPathOffset, length - kBookmarkPathOffset);
    path.resize(std::min(path.size(), path.find('\n')));  // the next line, when this one is short
    const size_t last = path.find_last_not_of(' ');
    path.resize(last == std::string::npos ? 0 : last + 1);
    return path;
}

}  // namespace

bookmark_image read_bookmarks(const std::string &path) {
    bookmark_image image;
    std::string bytes;
    if (!read_all(path, &bytes)) {
        image.absent = errno == ENOENT;
        image.reason = image.absent ? "no such file" : strerror(errno);
        return image;
    }
    image.readable = true;
    for (size_t at = 0; at < bytes.size(); at += kBookmarkRecord) {
        const char *record = bytes.data() + at;
        const size_t length = std::min(kBookmarkRecord, bytes.size() - at);
        const size_t number = at / kBookmarkRecord;
        const std::string name = shown_path(record, length);
        if (length < kBookmarkRecord) {
            image.problems.push_back({number, "short", name});
            break;
        }
        image.records++;
        const bookmark_record parsed = bookmark_parse(record, length);
        if (!well_formed(record)) {
            image.problems.push_back({number, "damaged", name});
        } else if (!image.positions.insert({name, {parsed.location, parsed.head, parsed.tail}})
                        .second) {
            image.problems.push_back({number, "double", name});
        }
    }
    return image;
}
