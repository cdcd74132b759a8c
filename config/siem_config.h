// The global configuration: the keys before the first "type=" line, the plugin list and the shared
// connection.
//
// One instance, `conf`. It is filled by start-up and by restarts while no worker runs, and only
// read in between; `connected` is the exception. There are no defaults for the documented keys: one
// that is absent leaves its field as it was.
#pragma once

#include <atomic>
#include <cstdint>
#include <cwchar>

struct RUVConn;
struct key_value_pair_spec;
struct plugin;

/// The Receiver's address.
struct rec_conn {
    wchar_t *server;  ///< host name or address
    int32_t port;
    int32_t encrypt;  ///< non-zero = TLS; 2 = asked for on a connection that begins plain
};

struct config {
    wchar_t *debug;      ///< "debug_level": a level word
    wchar_t *log;        ///< "log_path"
    uint32_t log_len;    ///< reserved
    wchar_t *bm_dir;     ///< "bookmark_dir"
    int32_t sleep_time;  ///< "sleep": seconds, copied into every plugin
    int32_t throttle;    ///< "throttle": events, copied into every plugin
    rec_conn ruv;        ///< "rec_ip", "rec_port", "rec_encrypt"
    plugin **p_list;     ///< the configured plugins; owned, see config/plugin.h
    int32_t p_count;
    std::atomic<uint8_t> connected;  ///< 1 when the last opening of the connection succeeded
    RUVConn *ruvconn;                ///< the shared connection; owned, see filetail/ruv.h

    // Opt-in keys of the same names; 0 or null = off.
    int32_t rec_confirm;       ///< events per confirmed group
    wchar_t *rec_tls_min;      ///< "1.2" or "1.3": authenticated TLS, at least this version
    wchar_t *rec_tls_ca;       ///< file of the trusted certificate authorities
    wchar_t *rec_tls_name;     ///< name or address that the Receiver must prove
    wchar_t *rec_tls_cert;     ///< file of our own certificate
    wchar_t *rec_tls_key;      ///< file of its key
    int32_t reconnect_wait;    ///< 1 to 300 seconds between two attempts to connect
    int32_t small_file_guard;  ///< 1 = recognise a file that grew from under 256 bytes
    int32_t rotation_drain;    ///< 1 = send the unread rest of a renamed file first
    int32_t wake_on_change;    ///< 1 = end the idle pause when a tailed directory changes
};

extern config conf;

/// Takes the global keys out of the list. Returns the list index at which plugin configuration
/// begins: one before the first "type" pair (so -1 when that is the first), or the number of pairs
/// when there is none.
int config_init(key_value_pair_spec *pairs, config *target);

/// Logs at WARN each opt-in key of the list whose value is out of its range (config_init() has put
/// it out of effect, or taken the largest value for one that is too large). Needs the logger.
void config_check(const key_value_pair_spec *pairs, const config *target);

/// Frees the strings and clears every setting, so that nothing of the old file is left when the
/// record is filled again. The plugin list and the connection are not touched.
void config_teardown(config *target);
