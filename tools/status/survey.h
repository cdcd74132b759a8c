// What the status tool knows: how far every file was read, what lies ahead, and whether the daemon
// runs. Gathered with reads only: no lock is taken, no file is opened for writing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/host/receiver_link.h"
#include "tools/status/bookmarks.h"

/// One tailed file.
struct file_state {
    std::string path;
    uint64_t size = 0;
    bool known = false;           ///< it has a bookmark
    bool unsure = false;          ///< the bookmark file cannot be read, so `position` is a guess
    uint64_t position = 0;        ///< bytes sent; where it will be begun when it has no bookmark
    uint64_t lag = 0;             ///< bytes from the position to the last delimiter
    int64_t events = 0;           ///< events in them; -1 = no delimiter in sight to estimate by
    bool estimated = false;       ///< `events` was reckoned from a sample
    uint64_t waiting = 0;         ///< bytes behind the last delimiter: an event not yet ended
    long age_seconds = 0;         ///< since its last change
    bool readable = true;         ///< by this tool
    bool forbidden = false;       ///< the running collector's account may not read it
    bool head_changed = false;    ///< the daemon will take it for a new file
    std::string rest_of;          ///< renamed by a rotation: its rest is sent under this old name
    bool waits_for_rest = false;  ///< begun when the rest of such a file was sent
    bool small = false;           ///< under 256 bytes
    bool nul_ahead = false;       ///< NUL bytes in what lies ahead
    bool long_ahead = false;      ///< an event of more than 65,535 bytes lies ahead
};

/// One section of the configuration.
struct plugin_state {
    std::string directory;
    std::string filter;
    std::string error;  ///< why the directory could not be read; empty = it was
    std::vector<file_state> files;
};

struct survey {
    std::string config_path;
    std::string error;  ///< why nothing could be found out; empty = it could
    bool up = false;
    bool lock_table = true;  ///< the lock table could be read, so `up` is known
    long pid = 0;
    std::optional<receiver_link> link;  ///< to the Receiver; nothing when it may not be looked at
    std::string user;                   ///< that the collector runs as; empty = unknown
    long since = 0;                     ///< seconds since 1970; 0 = unknown
    std::string bookmark_path;
    bool bookmarks_forbidden = false;  ///< the collector's account may not write them
    bookmark_image bookmarks;
    std::vector<plugin_state> plugins;
    std::vector<std::string> last_errors;  ///< newest last
    long taken_at = 0;                     ///< seconds since 1970
};

/// What one survey looks at.
struct survey_request {
    std::string config_path;
    std::string lock_path;
    std::string lock_table;
};

survey take_survey(const survey_request &request);

/// Sum of the lag of all files in bytes.
uint64_t total_lag(const survey &taken);
