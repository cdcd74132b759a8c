/**
 * Cutting text into events.
 *
 * `cut_events` is the whole rule, as a pure function over a buffer: it reads nothing, copies
 * nothing and answers with offsets. reader_window.h feeds it from a file; `xread` is the same for
 * a stream. An event always carries the length it was cut with: a log may hold NUL bytes.
 *
 * Threads: everything here belongs to its caller's thread.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

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

/** How far a text that holds no event yet has been searched; all zero at first. */
struct cut_progress {
    size_t searched; /**< no (further) delimiter begins in front of this byte */
    size_t matched;  /**< end of the delimiter that was met last */
    bool opened;     /**< delimiter in front: the first event's own one was met */
};

/** What to cut. */
struct cut_request {
    const delimiter *delim;
    int delim_at_end; /**< 1: a delimiter ends an event; 0: it starts one */
    const char *text;
    size_t length;
    bool more_to_come; /**< the buffer was filled to its end: the text goes on */
    int max_events;
};

/** What was cut. */
struct cut_result {
    int count; /**< events written; they touch each other, the first begins at 0 */
    int error; /**< 0, or the matcher's negative code that ended the search */
};

/** Cuts at most `max_events` events off the front of a text into `events`. With none, the same
 *  text with more bytes behind it may be given again with the same `progress`. */
cut_result cut_events(const cut_request &request, cut_progress *progress, event_span *events);

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

/** The same for a piece of text that is not a string, whose NUL bytes become blanks too. */
void clean_text(char *text, size_t length);

/** How many NUL bytes a text begins with: they are no part of an event's message. */
size_t leading_nuls(const char *text, size_t length);
