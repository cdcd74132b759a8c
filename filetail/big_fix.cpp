#include "filetail/big_fix.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "filetail/delimiter.h"

namespace {

constexpr char kDatePattern[] = "\\w+\\s\\d+,\\s\\w+";
constexpr size_t kFileStartBytes = 13;

/// Each worker has its own, as a delimiter belongs to one thread.
const delimiter *date_pattern() {
    thread_local const delimiter_ptr pattern = delimiter_compile(kDatePattern, nullptr);
    return pattern.get();
}

/// Remembers a text, sized to it; the old one stays when there is no memory.
void remember(void **event_data, const char *text, size_t length) {
    char *copy = strndup(text, length);
    if (copy == nullptr) return;
    free(*event_data);
    *event_data = copy;
}

void remember_file_start(void **event_data, FILE *fd) {
    char start[kFileStartBytes];
    const ssize_t got = fd == nullptr ? -1 : pread(fileno(fd), start, sizeof start, 0);
    remember(event_data, start, got > 0 ? static_cast<size_t>(got) : 0);
}

void put_in_front(char **event, int *event_len, const char *prefix) {
    const size_t ahead = strlen(prefix);
    const auto length = static_cast<size_t>(*event_len);
    char *joined = static_cast<char *>(malloc(ahead + 1 + length + 1));
    if (joined == nullptr) return;
    memcpy(joined, prefix, ahead);
    joined[ahead] = ' ';
    memcpy(joined + ahead + 1, *event, length);
    joined[ahead + 1 + length] = '\0';
    free(*event);
    *event = joined;
    *event_len = static_cast<int>(ahead + 1 + length);
}

}  // namespace

int big_fix_process_event(char **event, int *event_len, void **event_data, fdesc *, FILE *fd) {
    if (*event_len == 0) *event_len = static_cast<int>(strlen(*event));
    const delimiter *dates = date_pattern();
    if (dates == nullptr) return 0;
    delimiter_hit hit{0, 0};
    const auto length = static_cast<size_t>(*event_len);
    if (delimiter_find(dates, *event, length, {0, false, false}, &hit) == kDelimiterFound) {
        remember(event_data, *event + hit.begin, hit.end - hit.begin);
        return 1;
    }
    if (*event_data == nullptr) remember_file_start(event_data, fd);
    if (*event_data != nullptr) put_in_front(event, event_len, static_cast<char *>(*event_data));
    return 1;
}

void *big_fix_copy_state(const void *event_data) {
    return event_data == nullptr ? nullptr : strdup(static_cast<const char *>(event_data));
}

void big_fix_teardown_event(void **event_data) {
    free(*event_data);
    *event_data = nullptr;
}
