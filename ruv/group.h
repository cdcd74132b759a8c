#pragma once
/// Groups of records: between RUVGroupBegin and RUVGroupCommit encoded version-6 records are
/// queued in the handle instead of being written. The calling thread owns the handle.
#include <sys/uio.h>

#include "ruv/conn.h"

/// True between RUVGroupBegin and the commit or drop.
inline bool libruv_group_is_open(const RUVConn *conn) {
    return conn->group.open != 0;
}

/// Takes the place of libruv_write while a group is open: copies the segments to the end of the
/// queue. @return bytes queued, or -1 with error 1; the queue is then as before.
int libruv_group_queue(RUVConn *conn, int iovcnt, const iovec *iov);

/// Frees the queue's memory and closes the group.
void libruv_group_free(RUVConn *conn);
