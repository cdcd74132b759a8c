// One configured plugin: data only.
//
// A plugin is made by config/plugin, belongs to the plugin list of the global configuration and is
// used by its one worker thread; the core touches it again after that thread was joined.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cwchar>

struct RUVConn;
struct RUVDSInfo;
struct fdesc;
struct ft_bm;
struct rec_conn;

inline constexpr uint64_t kFileTail = 1ull << 32;  ///< flag: this is a file-tail plugin

/// Event cutter that replaces the standard one: may rewrite *event (malloc'd) and *event_len, keeps
/// private state in *event_data. Returns non-zero to send the event, 0 to drop it.
using process_event_fn = int (*)(char **event, int *event_len, void **event_data, fdesc *bm,
                                 FILE *fd);
/// Frees the private state of an event cutter.
using teardown_process_event_fn = void (*)(void **event_data);

struct ft_part {
    ft_bm **bm;            ///< groups of tailed files, one worker thread each; owned
    wchar_t *bm_file;      ///< path of the bookmark file; owned
    wchar_t *ft_dir;       ///< directory, always ending in "/"; owned
    wchar_t *ft_filter;    ///< file-name pattern; owned
    wchar_t *ft_delim;     ///< event delimiter word; owned
    int32_t ft_start_top;  ///< 1 = read new files from their first byte, default 0
    int32_t ft_delim_end;  ///< 1 = the delimiter ends an event, default 1
};

/// Reserved for a plugin that reads a database; nothing fills it.
struct db_part {
    char *sql;
    char *db_name;
    char *db_pass;
    char *server;
    int32_t port;
};

struct plugin {
    rec_conn *conn;     ///< the Receiver's address in the global configuration; not owned
    RUVConn *ruvconn;   ///< the shared connection; not owned
    char *hostid;       ///< value of "hostid"; owned
    RUVDSInfo *dsinfo;  ///< data source made from hostid; owned
    uint64_t flags;     ///< kFileTail
    void *data;         ///< the record that events are sent in; owned
    wchar_t *bm_dir;    ///< the bookmark directory of the global configuration; not owned
    int32_t bm_count;   ///< entries of ft.bm
    int32_t sleep;      ///< idle pause in seconds
    int32_t throttle;   ///< events per file and pass
    process_event_fn process_event;                    ///< null = standard events
    teardown_process_event_fn teardown_process_event;  ///< may be null
    void *process_event_data;                          ///< state of process_event
    union {
        ft_part ft;
        db_part db;
    };
};
