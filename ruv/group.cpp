#include "ruv/group.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "ruv/request.h"
#include "ruv/trace.h"
#include "ruv/transport.h"
#include "ruv/wait.h"

namespace {

using ruv::fail;

constexpr size_t kFirstSize = 64 << 10;     // of the queue; doubles as it fills
constexpr size_t kLargestQueue = 64 << 20;  // one write's length must stay within an int
constexpr size_t kKeptSize = 4 << 20;       // a larger queue is given back after its commit
constexpr int kLongestTimeout = 86'400;     // seconds

bool make_room(group_queue_t *queue, size_t wanted) {
    if (wanted <= queue->size) return true;
    if (wanted > kLargestQueue) return false;
    size_t size = queue->size ? queue->size : kFirstSize;
    while (size < wanted) size *= 2;
    void *grown = realloc(queue->bytes, size);
    if (!grown) return false;
    queue->bytes = static_cast<uint8_t *>(grown);
    queue->size = size;
    return true;
}

void close_group(group_queue_t *queue) {
    queue->open = 0;
    queue->used = 0;
    if (queue->size > kKeptSize) {
        free(queue->bytes);
        *queue = {};
    }
}

// One write of queue and NOP, then the answer. Each step is bounded on its own: a slow Receiver
// that still reads is not a silent one.
int confirm(RUVConn *conn, int timeout_seconds) {
    RUVv6_Header_t header;
    libruv_set_hdrv6(&header, 6, kRequest, kNop, 0, 0);
    uint64_t start = magic;
    iovec iov[3] = {
        {conn->group.bytes, conn->group.used}, {&start, sizeof start}, {&header, sizeof header}};
    const int64_t timeout_ms = int64_t{timeout_seconds} * 1000;
    conn->io_stall_ms = timeout_ms;
    int result = libruv_write(conn, 3, iov) < 0 ? -1 : 0;
    conn->io_stall_ms = 0;
    conn->io_deadline_ms = ruv::now_ms() + timeout_ms;
    if (result == 0) result = libruv_rqstinfo_check_result(conn);
    conn->io_deadline_ms = 0;
    return result;
}

int group_begin(RUVConn *conn) {
    if (!conn) return fail(2, 1);
    if (conn->skt == -1) return fail(22);
    if (conn->ruv_ver != kVersion6) return fail(12);
    close_group(&conn->group);
    conn->group.open = 1;
    return 0;
}

int group_commit(RUVConn *conn, int timeout_seconds) {
    if (!conn || !conn->group.open) return fail(2, 1);
    if (timeout_seconds < 1 || timeout_seconds > kLongestTimeout) return fail(2, 2);
    int result = 0;
    if (conn->skt == -1)
        result = fail(22);
    else if (conn->group.used > 0)
        result = confirm(conn, timeout_seconds);
    if (result != 0) libruv_disconnect(conn);
    close_group(&conn->group);
    return result;
}

}  // namespace

int libruv_group_queue(RUVConn *conn, int iovcnt, const iovec *iov) {
    group_queue_t *queue = &conn->group;
    size_t total = 0;
    for (int i = 0; i < iovcnt; ++i) total += iov[i].iov_len;
    if (!make_room(queue, queue->used + total)) return fail(1);
    for (int i = 0; i < iovcnt; ++i) {
        if (iov[i].iov_len > 0) memcpy(queue->bytes + queue->used, iov[i].iov_base, iov[i].iov_len);
        queue->used += iov[i].iov_len;
    }
    return static_cast<int>(total);
}

void libruv_group_free(RUVConn *conn) {
    free(conn->group.bytes);
    conn->group = {};
}

int RUVGroupBegin(RUVConn *conn) {
    return ruv::traced("RUVGroupBegin", [&] { return group_begin(conn); });
}

int RUVGroupCommit(RUVConn *conn, int timeout_seconds) {
    return ruv::traced("RUVGroupCommit", [&] { return group_commit(conn, timeout_seconds); });
}

void RUVGroupDrop(RUVConn *conn) {
    ruv::traced("RUVGroupDrop", [&] {
        if (!conn) return fail(2, 1);
        close_group(&conn->group);
        return 0;
    });
}
