/**
 * Cutting text into events.
 *
 * `cut_events` is the whole rule, as a pure function over a buffer: it reads nothing, copies
 * nothing and answers with offsets. `read_window` feeds it from a file; `xread` is the same for a
 * stream. An event always carries the length it was cut with, because a log may hold NUL bytes.
 *
 * Threads: everything here belongs to its caller's thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "filetail/delimiter.h"

constexpr int kBatchEvents = 500;
constexpr size_t kFirstBufferBytes = 1024;
/** A text without any delimiter is cut here, at a multiple of the longest record, so that the
 *  records of one endless line are the same as if it had been read whole. */
constexpr size_t kLongestEventBytes = size_t{256} * 65535;

/** One event inside a buffer: its first byte and the byte behind its last. */
struct event_span {
    size_t begin;
    size_t end;
};

/** What to cut. */
struct cut_request {
    const delimiter *delim;
    int delim_at_end; /**< 1: a delimiter ends an event; 0: it starts one */
    const char *text;
    size_t length;
    bool more_to_come; /**< the buffer was filled to its end: the text goes on */
    size_t searched;   /**< leading bytes known to hold no delimiter (0 when nothing is known) */
    int max_events;
};

/** What was cut. */
struct cut_result {
    int count;       /**< events written; they touch each other, the first begins at 0 */
    int error;       /**< 0, or the matcher's negative code that ended the search */
    size_t searched; /**< with no event: bytes that need not be searched again */
};

/** Cuts at most `max_events` events off the front of a text into `events`. */
cut_result cut_events(const cut_request &request, event_span *events);

/** The pattern for a delimiter word of the configuration: `delim` itself or a constant. */
const char *translate_delim(const char *delim);

/**
 * Cuts one batch from the stream's current position into `events` (kBatchEvents pointers), each a
 * new zero-terminated string that the caller frees. Returns their number, or -1 at the end of the
 * data, on a read error or when the pattern does not compile. The stream is left behind the bytes
 * that were read: the caller seeks.
 */
int xread(char **events, FILE *fd, const char *delim, int delim_position);

/** Turns every line feed and every carriage return of an event into a blank. */
void replace_newlines(char *event);
void replace_newlines(char *event, size_t length);

/** Makes an event printable as one string: line ends and NUL bytes become blanks. Returns how many
 *  leading NUL bytes to skip (`length` when nothing else is there). */
size_t clean_event(char *event, size_t length);

/** A batch read from a descriptor: one buffer, reused from file to file. */
struct read_window {
    std::vector<char> buffer;
    size_t length = 0;   /**< bytes of `buffer` that hold the file's text */
    uint64_t offset = 0; /**< place in the file of the first of them */
    event_span events[kBatchEvents];
};

/** How to read a batch. */
struct batch_request {
    const delimiter *delim;
    int delim_at_end;
    uint64_t position;  /**< place in the file of the first event */
    size_t first_bytes; /**< size of the first read; doubles while no event is found */
    int max_events;
};

/**
 * Cuts one batch of the file at `position` into `window->events` (offsets into
 * `window->buffer`). Returns the number of events; below 1 there is nothing to hand out: the end
 * of the data, an unfinished event, or an error, which was logged.
 */
int read_batch(read_window *window, int fd, const batch_request &request);
