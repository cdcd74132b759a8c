#include "filetail/reader_window.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "core/siemcollector_log.h"

namespace {

/// Makes room for `wanted` bytes behind the place `position` and keeps the text from there on.
bool make_room(read_window *window, uint64_t position, size_t wanted) {
    const bool kept = position >= window->offset && position <= window->offset + window->length;
    const size_t skip = kept ? static_cast<size_t>(position - window->offset) : window->length;
    const size_t left = window->length - skip;
    if (window->room < wanted) {
        std::unique_ptr<char[]> larger(new (std::nothrow) char[wanted]);
        if (!larger) {
            errno = ENOMEM;
            return false;
        }
        if (left > 0) memcpy(larger.get(), window->buffer.get() + skip, left);
        window->buffer = std::move(larger);
        window->room = wanted;
    } else if (left > 0 && skip > 0) {
        memmove(window->buffer.get(), window->buffer.get() + skip, left);
    }
    if (!kept) window->at_end = false;
    window->offset = position;
    window->length = left;
    return true;
}

/// Reads until `wanted` bytes are at hand or the file ends. Returns false on an error.
bool fill(read_window *window, int fd, const batch_request &request, size_t wanted) {
    const size_t ready = bytes_at_hand(*window, request.position);
    if (ready >= wanted || (ready > 0 && window->at_end)) return true;
    if (!make_room(window, request.position, std::max(wanted, request.read_ahead))) return false;
    while (window->length < wanted && !window->at_end) {
        const size_t asked = window->room - window->length;
        const ssize_t got = pread(fd, window->buffer.get() + window->length, asked,
                                  static_cast<off_t>(window->offset + window->length));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        window->length += static_cast<size_t>(got);
        window->at_end = static_cast<size_t>(got) < asked;
    }
    return true;
}

}  // namespace

size_t bytes_at_hand(const read_window &window, uint64_t position) {
    if (position < window.offset || position > window.offset + window.length) return 0;
    return static_cast<size_t>(window.offset + window.length - position);
}

int take_rest(read_window *window, uint64_t position) {
    const size_t length = bytes_at_hand(*window, position);
    if (length == 0) return 0;
    window->events[0] = {0, length};
    window->read_to = position + length;
    return 1;
}

int read_batch(read_window *window, int fd, const batch_request &request) {
    cut_progress progress{};
    window->error = window->failure = 0;
    for (size_t wanted = request.first_bytes;; wanted = std::min(wanted * 2, kLongestEventBytes)) {
        if (!fill(window, fd, request, wanted)) {
            window->failure = errno;
            forget_text(window);
            return -1;
        }
        const size_t ready = bytes_at_hand(*window, request.position);
        if (ready == 0) return -1;
        const size_t length = request.all_at_hand ? ready : std::min(ready, wanted);
        const bool more = ready >= wanted;
        const cut_request cut{
            request.delim, request.delim_at_end, window_text(window, request.position), length,
            more,          request.max_events};
        const cut_result result = cut_events(cut, &progress, window->events);
        window->read_to = request.position + length;
        window->error = result.error;
        if (result.error != 0) logger(kLogError, "Error in matching event: %d", result.error);
        if (result.count > 0 || result.error != 0 || !more) return result.count;
        if (length >= kLongestEventBytes) {
            window->events[0] = {0, kLongestEventBytes};
            return 1;
        }
    }
}
