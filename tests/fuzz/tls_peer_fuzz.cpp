// Opens connections over TLS to a Receiver that is not to be trusted, in both kinds of TLS.
//
// Input: a byte of modes, three of damage (place, place, bits), then for each connection a 16-bit
// length and what its peer sends: as the raw stream, instead of a handshake, or as answers behind
// a true handshake whose stream may be damaged at one place. No network: the connect call is
// replaced by one end of a socket pair. Whatever comes, the calls must end (whoever runs this sets
// the limit of time), and a peer without the right certificate must never be accepted where one is
// asked for.
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "ruv/wait.h"
#include "tests/fuzz/questions.h"
#include "tests/fuzz/tls_server.h"

namespace {

constexpr size_t kMostPeers = 12;      // later connections are refused
constexpr int kSpareMs = 5;            // of a slice of waiting
constexpr size_t kMostBytes = 60'000;  // of one peer: they must fit a socket's buffer

// Bits of the mode.
constexpr int kOwnContext = 1, kTrueHandshake = 2, kOldServer = 4, kStranger = 8;
constexpr int kStall = 0xF0;  // all of them, as a stall costs a quarter of a second

struct script {
    uint8_t mode = 0;
    tls_server::damage harm;
    const uint8_t *left = nullptr;
    size_t size = 0;
    size_t peers = 0;
    std::vector<std::thread> threads;
    std::vector<int> raw_ends;

    bool stalls() const { return (mode & kStall) == kStall; }
    std::string next() {
        if (size < 2) return {};
        const size_t wanted = left[0] | left[1] << 8;
        const size_t count = std::min({wanted, size - 2, kMostBytes});
        std::string bytes(reinterpret_cast<const char *>(left) + 2, count);
        left += 2 + count;
        size -= 2 + count;
        return bytes;
    }
};
script *g_script;

int scripted_connect(int fd, const sockaddr *, socklen_t) {
    script &s = *g_script;
    int pair[2];
    if (s.peers == kMostPeers || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        errno = ECONNREFUSED;
        return -1;
    }
    ++s.peers;
    const std::string bytes = s.next();
    if (dup2(pair[0], fd) != fd) abort();
    close(pair[0]);
    if (s.mode & kTrueHandshake) {
        const tls_server::kind kind = {(s.mode & kOldServer) != 0, (s.mode & kStranger) != 0,
                                       s.stalls()};
        s.threads.emplace_back(tls_server::serve, pair[1], kind, s.harm, bytes);
        return 0;
    }
    if (!bytes.empty() && send(pair[1], bytes.data(), bytes.size(), MSG_DONTWAIT) < 0) abort();
    if (!s.stalls()) shutdown(pair[1], SHUT_WR);
    s.raw_ends.push_back(pair[1]);
    return 0;
}

void try_connection(const script &s) {
    const bool own = s.mode & kOwnContext;
    RUVConn *conn = RUVAllocConn("127.0.0.1", 1, 1, own ? 1 : 1 + (s.mode >> 4 & 1), 0);
    if (!conn) abort();
    const char *ca = tls_server::ca_file().c_str();
    if (own &&
        RUVSetTLSOptions(conn, s.mode & 32 ? "1.3" : "1.2", ca, "localhost", nullptr, nullptr) != 0)
        abort();
    RUVSetInterrupt(
        conn, [](void *) { return 1; }, nullptr);
    // Where the peer is checked, one that nobody vouches for gets nowhere, and neither does one
    // that knows nothing newer than TLS 1.1.
    const bool open = RUVOpen(conn) == 0;
    if (open && own && (s.mode & kTrueHandshake) && (s.mode & (kOldServer | kStranger))) abort();
    if (open) questions::ask_everything(conn);
    RUVClose(conn);
    if (!own && RUVOpen(conn) == 0) RUVEnableSSL(conn);
    RUVFreeConn(conn);
}

}  // namespace

// A wait that nobody ends counts with its full slice whatever it took: a shorter one spares the
// time and changes no result. Linked in place of poll(); the server's patience is left alone.
extern "C" int __real_poll(pollfd *watched, nfds_t count, int timeout_ms);
extern "C" int __wrap_poll(pollfd *watched, nfds_t count, int timeout_ms);
extern "C" int __wrap_poll(pollfd *watched, nfds_t count, int timeout_ms) {
    return __real_poll(watched, count, timeout_ms == ruv::kSliceMs ? kSpareMs : timeout_ms);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 4) return 0;
    tls_server::make_identities();
    tls_server::repeatable_random();
    script s;
    s.mode = data[0];
    s.harm = {static_cast<size_t>(data[1] | data[2] << 8), data[3]};
    s.left = data + 4;
    s.size = size - 4;
    g_script = &s;
    ruv::os.connect = scripted_connect;
    ruv::os.sleep_ms = [](int) {};
    ruv::os.probe_budget_ms = 300;
    ruv::os.own_handshake_ms = s.stalls() ? 25 : 500;
    try_connection(s);
    for (const int fd : s.raw_ends) close(fd);
    for (std::thread &peer : s.threads) peer.join();
    return 0;
}
