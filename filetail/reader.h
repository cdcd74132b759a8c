/**
 * Reading one tailed file: from its position, in batches, event by event to the Receiver.
 *
 * The file is open only while it is read. An event moves the file's position and its bookmark
 * forward only after it was sent (or dropped by the plugin's cutter); with `rec_confirm` a whole
 * group moves them once, after the Receiver has answered.
 *
 * Thread: the worker that owns the file's group. Locks: none held on entry; `ruv_lock` and
 * `bm_file_lock` are taken inside, never both. The calling thread keeps one buffer and one
 * compiled delimiter, freed when the thread ends.
 */
#pragma once

struct fdesc;

/** What became of one file in a pass. */
struct read_outcome {
    int handled;     /**< events sent, or dropped by the plugin's cutter */
    bool unreadable; /**< the file could not be opened */
};

/** Reads and sends a file's new events until at least `throttle` were handled, nothing is left,
 *  the connection is lost or execution ends. */
read_outcome read_file(fdesc *file, int throttle);

/** The same as a number: events handled, and 1 for a file that could not be opened. */
int read_events(fdesc *cur_bm, int throttle);
