// Who holds the collector's lock file, asked of the kernel's lock table. Nothing is opened for
// writing and no lock is ever taken: a question must not keep a daemon from starting.
#pragma once

#include <string>

/// The lock file's fixed path.
extern const char *const kCollectorLockPath;

struct lock_holder {
    bool file_exists;     ///< the lock file is there
    bool table_readable;  ///< /proc/locks could be read; without it `pid` is unknown
    long pid;             ///< process that holds the lock; 0 = nobody
};

/// Looks up the holder of the lock on `path`. Reads the lock table at `table`.
lock_holder find_lock_holder(const std::string &path, const std::string &table = "/proc/locks");

/// Seconds since 1970 at which a process began, or 0 when that cannot be told.
long process_start_time(long pid);
