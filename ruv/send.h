#pragma once
/// Sending one record: the channel of its data source, one write, and the retries around it.
/// RUVSendData itself is declared in ruvlib.h.
#include "ruv/conn.h"
#include "ruv/record.h"

/// Encodes `record` for channel `cid`, dumps it when data dumping is on, and writes it with one
/// gathered write; while a group is open on `conn`, a version-6 record is queued instead. Runs on
/// the caller's thread and blocks as long as the socket does.
/// Returns the number of bytes written (or queued), -1 with error 18 or 2 for a record that cannot
/// be encoded, or the negative result of the write with its error.
int libruv_send_data(RUVConn *conn, const RUVData_t *record, const RUVDSInfo *dsinfo, int cid);
