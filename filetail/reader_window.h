/**
 * A window on a file: reads ahead and hands out one batch of events after the other.
 *
 * The text is read once, into one buffer that serves file after file; the events are offsets into
 * it. The buffer grows only while it holds no event at all, and never beyond the longest event.
 *
 * Threads: a window belongs to its caller's thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "filetail/cutter.h"

/** A batch read from a descriptor: one buffer, reused from file to file. */
struct read_window {
    std::unique_ptr<char[]> buffer;
    size_t room = 0;      /**< bytes of `buffer` */
    size_t length = 0;    /**< bytes of `buffer` that hold the file's text; 0 forgets them */
    uint64_t offset = 0;  /**< place in the file of the first of them */
    bool at_end = false;  /**< the file had no more when it was last asked */
    uint64_t read_to = 0; /**< place in the file behind the text that the last batch looked at */
    int error = 0;        /**< the matcher's code when the last batch ended in an error, else 0 */
    int failure = 0;      /**< error number when the last batch could not be read, else 0 */
    event_span events[kBatchEvents];
};

/** How to read a batch. */
struct batch_request {
    const delimiter *delim;
    int delim_at_end;
    uint64_t position;  /**< place in the file of the first event */
    size_t first_bytes; /**< bytes to look at first; doubles while they hold no event */
    bool all_at_hand;   /**< look at everything in the buffer, not only at `first_bytes` */
    size_t read_ahead;  /**< bytes to ask the file for */
    int max_events;
};

/**
 * Cuts one batch of the file at `position` into `window->events`, whose offsets count from the
 * place that `window_text` names. Returns the number of events; below 1 there is nothing to hand
 * out: the end of the data, an unfinished event, or an error, which was logged.
 */
int read_batch(read_window *window, int fd, const batch_request &request);

/** Makes one event of the text at `position` that no delimiter ends. Returns 1, or 0 without any.
 */
int take_rest(read_window *window, uint64_t position);

/** How much of the file's text from `position` on is in the window. */
size_t bytes_at_hand(const read_window &window, uint64_t position);

/** The text at a place in the file that the last batch looked at. */
inline char *window_text(read_window *window, uint64_t place) {
    return window->buffer.get() + (place - window->offset);
}

/** Forgets the text, so that the next batch reads the file again. */
inline void forget_text(read_window *window) {
    window->length = 0;
    window->at_end = false;
}
