/**
 * Ending an idle pause early, when the kernel reports a change in the tailed directory.
 *
 * Used only with `wake_on_change=1`. When the kernel has no watch left, the pause is slept out as
 * without it, after one WARN.
 *
 * Thread: the worker that owns the watch.
 */
#pragma once

/** A watch on one directory; -1 stands for "none". */
struct wake_watch {
    int fd = -1;
    bool failed = false; /**< the WARN was written; do not try again */

    wake_watch() = default;
    wake_watch(const wake_watch &) = delete;
    wake_watch &operator=(const wake_watch &) = delete;
    ~wake_watch();
};

/** What ended a wait. */
enum class wake_reason {
    timeout,   /**< the time is over */
    written,   /**< files were written to */
    directory, /**< files came, went or were renamed, or reports were lost: scan again */
};

/** Starts watching a directory; does nothing while it is watched already. */
void wake_start(wake_watch *watch, const char *directory);

/** Waits until a change, a stop or `milliseconds` have passed, whichever is first. `named(arg,
 * name)` is called for files that were written to; a name has no directory and may come more than
 * once. */
wake_reason wake_wait(wake_watch *watch, int milliseconds, void (*named)(void *, const char *),
                      void *arg);
