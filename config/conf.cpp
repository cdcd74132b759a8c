#include "config/conf.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/utils.h"

namespace {

struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using owned_file = std::unique_ptr<FILE, file_closer>;

struct line_buffer {
    char *text = nullptr;
    size_t room = 0;
    ~line_buffer() { free(text); }
};

// Only a regular file is a configuration: a FIFO would wait for a writer for ever.
owned_file open_regular_file(const char *path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return nullptr;
    struct stat info;
    int why = 0;
    if (fstat(fd, &info) != 0) {
        why = errno;
    } else if (!S_ISREG(info.st_mode)) {
        why = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    }
    owned_file file(why == 0 ? fdopen(fd, "r") : nullptr);
    if (file) return file;
    if (why == 0) why = errno;
    close(fd);
    errno = why;
    return nullptr;
}

bool is_kept(const char *line, size_t size, int include_comments) {
    if (include_comments) return true;
    if (size > 0 && line[0] == '#') return false;
    for (size_t i = 0; i < size; ++i) {
        if (static_cast<unsigned char>(line[i]) > 32) return true;
    }
    return false;
}

void free_pair(key_value_pair *pair) {
    if (!pair) return;
    free(pair->key);
    free(pair->value);
    free(pair);
}

wchar_t *wide_text(const char *text, size_t size, int32_t *length) {
    size_t count = 0;
    wchar_t *wide = bytes_to_wide(text, size, &count);
    *length = static_cast<int32_t>(count);
    return wide;
}

// Cuts a line of at least one byte at its first "=".
key_value_pair *make_pair(const char *line, size_t size) {
    auto *pair = static_cast<key_value_pair *>(calloc(1, sizeof(key_value_pair)));
    if (!pair) return nullptr;
    const auto *sign = static_cast<const char *>(memchr(line, '=', size));
    // Kept: the last character is dropped whatever it is; without a line feed at the end of the
    // file it is the last one of the value. Writers rely on nothing else, see the header.
    const size_t end = size - 1;
    const size_t key_size = sign ? static_cast<size_t>(sign - line) : end;
    const size_t value_start = sign ? key_size + 1 : 0;
    const size_t value_size = end > value_start ? end - value_start : 0;
    pair->key = wide_text(line, key_size, &pair->key_len);
    pair->value = wide_text(line + value_start, value_size, &pair->value_len);
    if (pair->key && pair->value) return pair;
    free_pair(pair);
    return nullptr;
}

bool append_pair(key_value_pair_spec *spec, int32_t *room, key_value_pair *pair) {
    if (!pair) return false;
    if (spec->count == *room) {
        const int32_t larger = *room == 0 ? 64 : 2 * *room;
        void *moved = realloc(spec->kvp, sizeof(key_value_pair *) * static_cast<size_t>(larger));
        if (!moved) {
            free_pair(pair);
            return false;
        }
        spec->kvp = static_cast<key_value_pair **>(moved);
        *room = larger;
    }
    spec->kvp[spec->count++] = pair;
    return true;
}

void empty_list(key_value_pair_spec *spec) {
    for (int32_t i = 0; i < spec->count; ++i) free_pair(spec->kvp[i]);
    free(spec->kvp);
    *spec = {};
}

// Reads the whole file into the list. Returns 0 or an error number.
int read_pairs(FILE *file, key_value_pair_spec *spec, int include_comments) {
    line_buffer line;
    int32_t room = 0;
    ssize_t size;
    errno = 0;
    while ((size = getline(&line.text, &line.room, file)) > 0) {
        const auto bytes = static_cast<size_t>(size);
        if (!is_kept(line.text, bytes, include_comments)) continue;
        if (!append_pair(spec, &room, make_pair(line.text, bytes))) return ENOMEM;
    }
    if (feof(file)) return 0;
    return errno != 0 ? errno : EIO;
}

}  // namespace

int conf_parse_key_value_pair(const char *file, key_value_pair_spec **spec, int include_comments) {
    *spec = static_cast<key_value_pair_spec *>(calloc(1, sizeof(key_value_pair_spec)));
    int why = *spec ? 0 : ENOMEM;
    if (why == 0) {
        const owned_file opened = open_regular_file(file);
        why = opened ? read_pairs(opened.get(), *spec, include_comments) : errno;
    }
    if (why == 0) return 0;
    if (*spec) empty_list(*spec);
    printf("Error: Failed to open conf file %s with error %d(%s)\n", file, why, strerror(why));
    fflush(stdout);
    return 1;
}

void conf_teardown_key_value_pair(key_value_pair_spec *spec) {
    if (!spec) return;
    empty_list(spec);
    free(spec);
}

wchar_t *widen(const char *text) {
    return text ? bytes_to_wide(text, strlen(text), nullptr) : nullptr;
}
