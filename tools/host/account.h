// What the collector's account may do with files. Root may read everything, so that a tool that
// runs as root has to ask with the rights, and with the view of the file system, of the collector.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// A user with groups, and the process, if any, whose view of the file system counts.
struct account {
    std::string name;  ///< of the user; its number where it has no name
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;  ///< supplementary ones
    long pid = 0;               ///< a running process of it; 0 = our own view counts
};

/// The account that process `pid` runs under, or nothing when that cannot be told.
std::optional<account> account_of_process(long pid);

/// The owner of `path` with the groups of the user data base, or nothing when there is no such path
/// or no such user. What a service manager would add at a start is not known here.
std::optional<account> account_of_owner(const std::string &path);

/// One question: may `path` be used in `mode` (R_OK, W_OK and X_OK as for access(2))?
struct access_question {
    std::string path;
    int mode;
};

/// The errno of every question, 0 = it may. Empty when it cannot be found out: only root may ask
/// for another account. Asks in a child process and waits for it; nothing is opened.
std::vector<int> ask_access(const account &who, const std::vector<access_question> &questions);
