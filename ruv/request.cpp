#include "ruv/request.h"

#include <cstdio>
#include <cstring>

#include "ruv/trace.h"
#include "ruv/transport.h"

namespace {

using ruv::fail;

struct receiver_version {
    uint16_t major, minor, dot;
    char patch[2];
    uint64_t buildstamp;
};

// What Receivers that cannot be asked are taken for.
constexpr receiver_version kUpTo5Version = {8, 4, 0, {'?', 0}, 0};
constexpr receiver_version kMuteVersion = {8, 5, 0, {'?', 0}, 0};

int find_version(RUVConn *conn, receiver_version *version) {
    if (conn->ruv_ver < kVersion6) {
        *version = kUpTo5Version;
        return 0;
    }
    if (!libruv_understands(conn, kGetRcvrVer)) {
        *version = kMuteVersion;
        return 0;
    }
    RUV_Rsp_RcvrVerInfo_t answer;
    if (libruv_ask(conn, kGetRcvrVer, 0, 0) != 0 ||
        libruv_read_exact(conn, &answer, sizeof answer) != 0)
        return -1;
    *version = {answer.major,
                answer.minor,
                answer.dot,
                {answer.patch[0], answer.patch[1]},
                answer.buildstamp};
    return 0;
}

}  // namespace

void libruv_set_hdrv6(RUVv6_Header_t *header, int pv, int dt, int dv, int tpt, int cid) {
    header->word = (static_cast<uint32_t>(dv) << 20 | (static_cast<uint32_t>(dt) & 0xFFF) << 8) +
                   (static_cast<uint32_t>(pv) & 0xFF);
    header->third_party_type = static_cast<uint16_t>(tpt);
    header->dsidchanid = static_cast<uint16_t>(cid);
    if (!ruv::enabled(debug_data)) [[likely]]
        return;
    fprintf(stderr, "RUV v6 Header:\n");
    fprintf(stderr, "\tVersion: %d, Data Type: %d, Data Ver: %d\n", header->word & 0xFF,
            header->word >> 8 & 0xFFF, header->word >> 20);
    fprintf(stderr, "\tThird Party Type: %d\n", header->third_party_type);
    fprintf(stderr, "\tChannel ID: %d\n", header->dsidchanid);
    fprintf(stderr, "\n");
}

int libruv_send_rqstinfo(RUVConn *conn, int type, int cid, int tpt) {
    ruv::trace_point();
    RUVv6_Header_t header;
    libruv_set_hdrv6(&header, 6, kRequest, type, tpt, cid);
    uint64_t start = magic;
    iovec iov[2] = {{&start, sizeof start}, {&header, sizeof header}};
    return libruv_write(conn, 2, iov);
}

int libruv_rqstinfo_check_result(RUVConn *conn) {
    ruv::trace_point();
    char result[sizeof kResultOkay];
    if (libruv_read_exact(conn, result, sizeof result) != 0) return -1;
    return memcmp(result, kResultOkay, sizeof result) == 0 ? 0 : fail(13);
}

int libruv_ask(RUVConn *conn, int type, int cid, int tpt) {
    if (libruv_send_rqstinfo(conn, type, cid, tpt) < 0) return -1;
    return libruv_rqstinfo_check_result(conn);
}

int libruv_read_exact(RUVConn *conn, void *buffer, size_t size) {
    iovec segment = {buffer, size};
    return libruv_read(conn, 1, &segment) < 0 ? -1 : 0;
}

int RUVGetReceiverVer(RUVConn *conn, uint16_t *major, uint16_t *minor, uint16_t *dot, char *patch,
                      uint64_t *buildstamp) {
    return ruv::traced("RUVGetReceiverVer", [&] {
        if (!conn) return fail(2, 1);
        if (conn->skt == -1) return fail(22);
        receiver_version version;
        if (find_version(conn, &version) != 0) return -1;
        *major = version.major;
        *minor = version.minor;
        *dot = version.dot;
        memcpy(patch, version.patch, sizeof version.patch);
        *buildstamp = version.buildstamp;
        return 0;
    });
}
