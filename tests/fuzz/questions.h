#pragma once
// Everything that a client asks or tells an open connection, whatever the answers are.
#include "ruv/ruvlib.h"
#include "ruv/ruvlibsetters.h"

namespace questions {

inline void ask_everything(RUVConn *conn) {
    uint16_t major, minor, dot;
    char patch[2];
    uint64_t build;
    const uint32_t address = 0x7F000001;
    RUVGetReceiverVer(conn, &major, &minor, &dot, patch, &build);
    RUVDSInfo *source = RUVAllocDSInfo(1, &address);
    RUVIsDSKnown(conn, nullptr, source);
    RUVIsDSKnown(conn, nullptr, source);
    RUVCheckPeer(conn);
    void *record = RUVAllocData(conn, 3, 0, 0);
    if (record) {
        RUVSyslogSet_message(record, "event", 0);
        RUVSendData(conn, record, source);
        if (RUVGroupBegin(conn) == 0) {
            RUVSendData(conn, record, nullptr);
            RUVGroupCommit(conn, 1);
        }
        RUVFreeData(record);
    }
    RUVFreeDSInfo(source);
}

}  // namespace questions
