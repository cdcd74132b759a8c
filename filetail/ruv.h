/**
 * The daemon's one connection to the Receiver.
 *
 * All plugins send over the handle in the global `conf`. Every use of it happens under `ruv_lock`,
 * which can be held for the seconds of a network wait: takers wait politely. No path holds
 * `ruv_lock` together with `bm_file_lock`.
 *
 * Everything here may be called by any worker thread; `ruv_init` and `ruv_teardown` only while no
 * worker runs. Waits inside the library end within a quarter of a second once execution stops.
 */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/spinlock.h"

struct config;
struct plugin;

/** Guards the shared connection handle and every call that uses it. */
extern lock_word ruv_lock;

/** 1 while the connection is believed usable; cleared by any failed send. */
extern std::atomic<int8_t> _connected;

/** The longest text of one record: its length travels in 16 bits. */
constexpr size_t kRecordBytes = 65535;

/** Opens the shared connection. Returns 0, or 1 when that failed: the daemon runs on and its
 *  workers connect later. */
int ruv_init(config *c);

/** Closes the connection and frees its handle. */
void ruv_teardown(config *c);

/** Allocates the plugin's event record; logs and returns -1 when the library refuses. */
int ruv_alloc_record(plugin *p);

/** Makes the shared connection usable: waits, tries again and logs as long as execution goes on,
 *  and sees to it that the plugin has a record that fits the connection. Returns 0, or -1 when the
 *  worker has to leave its loop. */
int ruv_ensure_connected(plugin *p);

/** Sends one event; one longer than kRecordBytes goes as consecutive records. Returns 1 when it was
 *  sent, 0 when not (the event is to be read again). */
int send_event(plugin *p, const char *event, size_t length);

/** One event of a group. */
struct group_event {
    const char *text;
    size_t length;
};

/** How many events a group may hold: 0 when events are sent one by one, because no confirmation
 *  was asked for or the Receiver speaks an older generation. */
int ruv_group_limit();

/** Sends a group and waits until the Receiver has confirmed it. Returns 1, 0 when the group must be
 *  read again, -1 when this connection cannot confirm (send the events one by one). */
int send_group(plugin *p, const group_event *events, int count);

/** After a failed send: waits a second when the one before it failed too, so that a Receiver that
 *  refuses everything is not asked thousands of times a second. */
void ruv_pause_after_failure();
