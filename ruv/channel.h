#pragma once
/// Data sources and the channel ids that a version-6 Receiver assigns to them: the public calls
/// on RUVDSInfo, auto-learning and RUVIsDSKnown, and the cache. The calling thread owns the handle.
#include "ruv/conn.h"

struct RUVData_t;

/// Looks the source up in the cache. @return its channel id, or -1 with error 14 (not cached) or
/// 2 (bad kind). A channel id is 0 to 65535.
int libruv_lookup_channel_id(RUVConn *conn, const RUVDSInfo *ds);

/// Asks the Receiver for the source's channel id and caches it. Blocks for the answer. @return
/// the channel id, or -1: error 14 for an id that does not fit the header's 16 bits, error 2 for a
/// bad kind or a host id too long to send, else a transfer error.
int libruv_request_channel_id(RUVConn *conn, const RUVDSInfo *ds);

/// Adds an entry to the cache. @return 0, or -1 with error 1, 2 or 14.
int libruv_save_channel_id(RUVConn *conn, const RUVDSInfo *ds, int cid);

/// Asks whether the Receiver knows channel `cid` for the record's data type and notes a yes in
/// the cache. `data` may be null. @return 0 when known, else -1.
int libruv_am_known(RUVConn *conn, const RUVData_t *data, int cid);

/// The noted answer for (channel, data type 1 to 4).
bool libruv_known_bit(const RUVConn *conn, int cid, int data_type);

/// Empties the cache as a successful open does: the known array stays, its first word is zeroed.
void libruv_clear_channels(RUVConn *conn);

/// Frees the cache with its known array.
void libruv_free_channels(RUVConn *conn);
