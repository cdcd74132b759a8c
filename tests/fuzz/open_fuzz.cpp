// Opens a connection to a Receiver that answers with arbitrary bytes, and asks it everything.
//
// Input: one byte of modes, then for each connection a 16-bit length and what its peer sends
// before it closes. No network: the connect call is replaced by one end of a socket pair.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ruv/ruvlib.h"
#include "ruv/wait.h"
#include "tests/fuzz/questions.h"

namespace {

constexpr size_t kMostPeers = 16;      // later connections are refused
constexpr size_t kMostBytes = 60'000;  // of one peer: they must fit a socket's buffer

const uint8_t *g_left;
size_t g_size, g_peers;
int g_others[kMostPeers];

size_t next_length() {
    if (g_size < 2) return 0;
    const size_t wanted = g_left[0] | g_left[1] << 8;
    g_left += 2;
    g_size -= 2;
    return std::min({wanted, g_size, kMostBytes});
}

int scripted_connect(int fd, const sockaddr *, socklen_t) {
    int pair[2];
    if (g_peers == kMostPeers || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        errno = ECONNREFUSED;
        return -1;
    }
    const size_t count = next_length();
    if (count > 0 && send(pair[1], g_left, count, MSG_DONTWAIT) != static_cast<ssize_t>(count))
        abort();
    g_left += count;
    g_size -= count;
    shutdown(pair[1], SHUT_WR);
    if (dup2(pair[0], fd) != fd) abort();
    close(pair[0]);
    g_others[g_peers++] = pair[1];
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    g_left = data + 1;
    g_size = size - 1;
    g_peers = 0;
    ruv::os.connect = scripted_connect;
    ruv::os.sleep_ms = [](int) {};
    RUVConn *conn = RUVAllocConn("127.0.0.1", 1, 1, data[0] % 3, data[0] / 3 % 3);
    if (!conn) abort();
    if (RUVOpen(conn) == 0) questions::ask_everything(conn);
    RUVClose(conn);
    if (RUVOpen(conn) == 0) RUVEnableSSL(conn);
    RUVFreeConn(conn);
    for (size_t i = 0; i < g_peers; ++i) close(g_others[i]);
    return 0;
}
