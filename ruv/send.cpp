#include "ruv/send.h"

#include <cerrno>

#include "ruv/channel.h"
#include "ruv/encode.h"
#include "ruv/error.h"
#include "ruv/group.h"
#include "ruv/record_print.h"
#include "ruv/trace.h"
#include "ruv/transport.h"

namespace {

constexpr int kSendAttempts = 7;        // writes of one record, the first one included
constexpr int kResendPauseSeconds = 5;  // between a reconnect and the next write

constexpr int kLastLegacyVersion = 5;
constexpr int kNoChannel = -1;  // legacy records have no header that could carry one

// Versions 1 to 5 have no place for a host id, and their Syslog none for an IPv6 address.
bool source_fits(const RUVData_t *record, const RUVDSInfo *dsinfo) {
    if (record->ctl.ver > kLastLegacyVersion || dsinfo == nullptr) return true;
    return dsinfo->type != kDsHostID && !(dsinfo->type == kDsIPv6 && record->ctl.type == kSyslog);
}

int check_arguments(const RUVConn *conn, const RUVData_t *record, const RUVDSInfo *dsinfo) {
    if (conn == nullptr) return ruv::fail(2, 1);
    if (record == nullptr) return ruv::fail(2, 2);
    if (conn->skt == -1) return ruv::fail(22);
    if (record->ctl.type < kAlert || record->ctl.type > kWinEvent)
        return ruv::fail(15, static_cast<int>(record->ctl.type));
    if (!source_fits(record, dsinfo)) return ruv::fail(12);
    return 0;
}

// Stores the channel of the record's source; asks the Receiver when the cache has none. Returns 0
// or -1.
int resolve_channel(RUVConn *conn, const RUVData_t *record, const RUVDSInfo *dsinfo, int *cid) {
    *cid = kNoChannel;
    if (record->ctl.ver <= kLastLegacyVersion) return 0;
    // A Receiver that stayed silent when it was probed again counts as generation 5, and would
    // take a version-6 unit for garbage. The caller still has the event.
    if (conn->ruv_ver == kUpTo5) return ruv::fail(12);
    *cid = 0;
    if (dsinfo == nullptr) return 0;
    *cid = libruv_lookup_channel_id(conn, dsinfo);
    if (*cid < 0) *cid = libruv_request_channel_id(conn, dsinfo);
    if (*cid < 0) return -1;
    // Kept: with auto-learning off the source counts as known all the same and libruv_am_known is
    // never called from here; the mask of its known bit is looked at, which is never zero.
    return 0;
}

// A failure of the stream, as opposed to one of the record, which a new connection cannot mend.
bool connection_failed() {
    return ruverrno == 3 || ruverrno == 4 || ruverrno == 6;
}

// The caller's interrupt callback ended the write; opening anew would only delay the stop.
bool interrupted() {
    return ruverrno == 3 && ruverrno2 == EINTR;
}

int reopen(RUVConn *conn) {
    RUVClose(conn);
    return RUVOpen(conn);
}

int send_with_retries(RUVConn *conn, const RUVData_t *record, const RUVDSInfo *dsinfo) {
    if (check_arguments(conn, record, dsinfo) != 0) return -1;
    for (int attempt = 1;; ++attempt) {
        int cid;
        if (resolve_channel(conn, record, dsinfo, &cid) != 0) return -1;
        const int written = libruv_send_data(conn, record, dsinfo, cid);
        if (written > 0) return written;
        if (!connection_failed() || interrupted()) return -1;
        // The stream may have ended inside the unit, so even the last failure gets a new one.
        if (reopen(conn) != 0) return -1;
        if (attempt == kSendAttempts) return -1;
        if (libruv_pause(conn, kResendPauseSeconds) != 0) return -1;
    }
}

}  // namespace

int libruv_send_data(RUVConn *conn, const RUVData_t *record, const RUVDSInfo *dsinfo, int cid) {
    encoded_unit unit;
    if (libruv_encode(record, dsinfo, cid, conn->ip_addr, &unit) != 0) return -1;
    if (ruv::enabled(debug_data)) libruv_print_record(conn, record, unit);
    if (libruv_group_is_open(conn) && record->ctl.ver > kLastLegacyVersion)
        return libruv_group_queue(conn, unit.count, unit.segments);
    return libruv_write(conn, unit.count, unit.segments);
}

int RUVSendData(RUVConn *conn, void *record, RUVDSInfo *dsinfo) {
    return ruv::traced("RUVSendData", [=] {
        return send_with_retries(conn, static_cast<RUVData_t *>(record), dsinfo);
    });
}
