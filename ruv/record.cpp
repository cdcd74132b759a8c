#include "ruv/record.h"

#include <cstdlib>
#include <cstring>

#include "ruv/conn.h"
#include "ruv/error.h"
#include "ruv/ruvlib.h"
#include "ruv/trace.h"

namespace {

constexpr int kWindowsThirdPartyType = 43;

// The highest version of `type` that the Receiver takes, 0 when it takes none.
int highest_version(const RUVConn *conn, int type) {
    int ver = kProtocolVersions;
    while (ver > 0 && conn->data_versions[type][ver - 1] == 0) --ver;
    return ver;
}

// Zero-based sub-version for the caller's `subver`, -1 when none fits.
int choose_subversion(unsigned mask, int subver) {
    if (subver > 0) return subver - 1;
    // Kept: a default never becomes sub-version 3, records of older callers must not change form
    // because a Receiver learned a new one.
    if (mask & 2) return 1;
    return mask & 1 ? 0 : -1;
}

RUVData_t *alloc_data(const RUVConn *conn, int type, int ver, int subver) {
    if (conn == nullptr) return ruv::fail_null(2, 1);
    if (type < kAlert || type > kWinEvent) return ruv::fail_null(2, 2);
    if (ver < 0 || ver > kProtocolVersions) return ruv::fail_null(2, 3);
    if (subver < 0 || subver > 3) return ruv::fail_null(2, 4);
    if ((conn->data_types >> type & 1) == 0) return ruv::fail_null(15, type);

    if (ver == 0) ver = highest_version(conn, type);
    const unsigned mask = ver > 0 ? conn->data_versions[type][ver - 1] : 0;
    const int sver = choose_subversion(mask, subver);
    if (mask == 0) return ruv::fail_null(16, ver);
    if (sver < 0 || (mask >> sver & 1) == 0) return ruv::fail_null(17, sver + 1);

    auto *record = static_cast<RUVData_t *>(malloc(sizeof(RUVData_t)));
    if (record == nullptr) return ruv::fail_null(1);
    record->ctl.ver = ver;
    record->ctl.sver = sver;
    record->ctl.type = static_cast<uint32_t>(type);
    record->ctl.tpt = type == kWinEvent ? kWindowsThirdPartyType : 0;
    libruv_reset_data(record);
    return record;
}

}  // namespace

void libruv_reset_data(RUVData_t *record) {
    ruv::trace_point();
    // With the size in sight the compiler writes a string instruction, which costs more than all
    // setters of a Syslog record; the C library's own memset does not.
    size_t size = sizeof record->data;
    asm("" : "+r"(size));
    memset(&record->data, 0, size);
    ruv::trace_point();
}

void *RUVAllocData(RUVConn *conn, int type, int ver, int subver) {
    return ruv::traced("RUVAllocData", [=] { return alloc_data(conn, type, ver, subver); });
}

void RUVResetData(void *record) {
    ruv::traced("RUVResetData", [=] {
        if (record == nullptr) return ruv::fail(2, 1);
        libruv_reset_data(static_cast<RUVData_t *>(record));
        return 0;
    });
}

void RUVFreeData(void *record) {
    ruv::traced("RUVFreeData", [=] {
        if (record == nullptr) return ruv::fail(2, 1);
        free(record);
        return 0;
    });
}
