#include "tools/ruv_receiver/connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace receiver {

io_result connection::read_some(void *buffer, size_t length) {
    if (tls) return tls_read(tls.get(), buffer, length);
    for (;;) {
        ssize_t got = recv(fd, buffer, length, 0);
        if (got > 0) return {io_state::done, static_cast<size_t>(got)};
        if (got == 0) return {io_state::closed, 0};
        if (errno == EAGAIN) return {io_state::want_read, 0};
        if (errno != EINTR) return {io_state::failed, 0};
    }
}

bool connection::send_unsent() {
    size_t sent = 0;
    tls_wants_write = false;
    while (sent < unsent.size()) {
        if (tls) {
            io_result result = tls_write(tls.get(), unsent.data() + sent, unsent.size() - sent);
            if (result.state == io_state::want_read || result.state == io_state::want_write) break;
            if (result.state != io_state::done) return false;
            sent += result.bytes;
            continue;
        }
        ssize_t put = send(fd, unsent.data() + sent, unsent.size() - sent, MSG_NOSIGNAL);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0 && errno != EAGAIN) return false;
        if (put < 0) break;
        sent += static_cast<size_t>(put);
    }
    unsent.erase(0, sent);
    return true;
}

void connection::end() {
    if (fd < 0) return;
    if (resetting) {
        linger abort = {1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    }
    tls.reset();
    close(fd);
    fd = -1;
}

}  // namespace receiver
