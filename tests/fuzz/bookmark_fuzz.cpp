// Bookmark files: any image must be readable, and after one update the path must be found with the
// written position while every other byte of whole records stays.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "filetail/bookmark_file.h"
#include "filetail/bookmark_format.h"

namespace {

const std::string &image_path() {
    static const std::string path = [] {
        char name[64];
        // Memory where there is a file system of it: the disk would set the pace.
        snprintf(name, sizeof name, "%s/bookmark_fuzz_XXXXXX",
                 access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
        const int fd = mkstemp(name);
        if (fd < 0) abort();
        close(fd);
        static std::string kept = name;
        atexit([] { unlink(kept.c_str()); });
        return kept;
    }();
    return path;
}

void write_image(const uint8_t *data, size_t size) {
    const int fd = open(image_path().c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) abort();
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *bytes = reinterpret_cast<const char *>(data);
    for (size_t at = 0; at < size; at += kBookmarkRecord) {
        const bookmark_record parsed =
            bookmark_parse(bytes + at, std::min(kBookmarkRecord, size - at));
        if (parsed.path_length > kBookmarkPathLimit) abort();
        if (parsed.path_length > 0 && memchr(parsed.path, ' ', parsed.path_length) != nullptr)
            abort();
    }
    write_image(data, size);
    const char path[] = "/var/log/app/service.log";
    bookmark_file file;
    if (bookmark_file_open(&file, image_path().c_str()) != 0) abort();
    bookmark_hit hit{};
    const int found = bookmark_file_find(&file, path, sizeof path - 1, &hit);
    char record[kBookmarkRecord];
    if (!bookmark_format(record, 4711, 1, 2, path, sizeof path - 1)) abort();
    if (bookmark_file_write(&file, found == 1 ? hit.slot : -1, record) != 0) abort();
    if (bookmark_file_find(&file, path, sizeof path - 1, &hit) != 1) abort();
    if (hit.record.location != 4711) abort();
    if (bookmark_file_remove(&file, &hit) != 0) abort();
    bookmark_file_close(&file);
    return 0;
}
