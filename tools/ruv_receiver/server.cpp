#include "tools/ruv_receiver/server.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace receiver {
namespace {

using std::chrono::milliseconds;

constexpr int kBacklog = 1024;
constexpr int kEventsAtOnce = 256;
constexpr int kTickMilliseconds = 20;  /**< how often delays and slow reading are looked at */
constexpr int kThrottledBuffer = 4096; /**< receive buffer that lets a client feel a slow reader */

std::string peer_text(const sockaddr_storage &address, socklen_t length) {
    char host[64] = "?", service[16] = "?";
    getnameinfo(reinterpret_cast<const sockaddr *>(&address), length, host, sizeof host, service,
                sizeof service, NI_NUMERICHOST | NI_NUMERICSERV);
    return std::string(host) + " port " + service;
}

int report(const char *what) {
    fprintf(stderr, "ruv_receiver: %s: %s\n", what, strerror(errno));
    return -1;
}

}  // namespace

server::server(const settings &chosen, const catalogue &custom, SSL_CTX *tls, event_log &log)
    : chosen_(chosen),
      custom_(custom),
      tls_(tls),
      log_(log),
      responder_(chosen, custom),
      buffer_(kReadSize) {
}

server::~server() {
    for (auto &[fd, client] : clients_) client->end();
    for (int fd : {listener_, signals_, epoll_}) {
        if (fd >= 0) close(fd);
    }
}

bool server::start() {
    signal(SIGPIPE, SIG_IGN);
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    signals_ = signalfd(-1, &ends, SFD_NONBLOCK | SFD_CLOEXEC);
    if (epoll_ < 0 || signals_ < 0) return report("cannot set up the loop") == 0;
    return listen_on(chosen_.listen.c_str(), chosen_.port) && watch(signals_, EPOLLIN) &&
           watch(listener_, EPOLLIN);
}

bool server::listen_on(const char *address, int64_t port) {
    addrinfo hints = {}, *found = nullptr;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    hints.ai_socktype = SOCK_STREAM;
    int bad = getaddrinfo(address, std::to_string(port).c_str(), &hints, &found);
    if (bad != 0) {
        fprintf(stderr, "ruv_receiver: cannot listen on '%s': %s\n", address, gai_strerror(bad));
        return false;
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
    listener_ = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int on = 1, size = static_cast<int>(chosen_.receive_buffer);
    const fault_settings &f = chosen_.faults;
    if (size == 0 && (f.slow > 0 || f.stall_after >= 0)) size = kThrottledBuffer;
    if (listener_ < 0) return report("cannot make a socket") == 0;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (size > 0) setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    sockaddr_storage bound = {};
    socklen_t length = sizeof bound;
    if (bind(listener_, found->ai_addr, found->ai_addrlen) != 0 ||
        listen(listener_, kBacklog) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr *>(&bound), &length) != 0)
        return report("cannot listen") == 0;
    in_port_t raw = bound.ss_family == AF_INET6
                        ? reinterpret_cast<sockaddr_in6 *>(&bound)->sin6_port
                        : reinterpret_cast<sockaddr_in *>(&bound)->sin_port;
    port_ = ntohs(raw);
    return true;
}

bool server::watch(int fd, uint32_t events) {
    epoll_event event = {};
    event.events = events;
    event.data.fd = fd;
    return epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0 || report("cannot watch") == 0;
}

void server::run() {
    epoll_event ready[kEventsAtOnce];
    next_progress_ = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (!stop_) {
        int count = epoll_wait(epoll_, ready, kEventsAtOnce, wait_time());
        now_ = std::chrono::steady_clock::now();
        for (int i = 0; i < count && !stop_; i++) dispatch(ready[i].data.fd, ready[i].events);
        serve_again();
        tick();
        remove_dead();
        log_.flush();
    }
}

int server::wait_time() const {
    const fault_settings &f = chosen_.faults;
    if (!again_.empty()) return 0;
    if (!clients_.empty() && (f.slow > 0 || f.delay > 0)) return kTickMilliseconds;
    return chosen_.progress ? 100 : -1;
}

void server::dispatch(int fd, uint32_t events) {
    if (fd == signals_) {
        stop_ = true;
        return;
    }
    if (fd == listener_) return accept_all();
    auto found = clients_.find(fd);
    if (found == clients_.end() || found->second->dead) return;
    connection &c = *found->second;
    // Without interest in reading only the end of the stream can wake us, again and again.
    if ((events & (EPOLLERR | EPOLLHUP)) != 0 && (c.interest & EPOLLIN) == 0)
        return fail(c, "closed by the client");
    service(c);
}

/** Does whatever the connection is ready for. */
void server::service(connection &c) {
    if (c.handshaking) advance_handshake(c);
    if (c.dead || c.handshaking) return update_interest(c);
    if (!c.unsent.empty() && !c.send_unsent()) return fail(c, "cannot send");
    read_available(c);
    push_out(c);
}

void server::tick() {
    const fault_settings &f = chosen_.faults;
    if (chosen_.progress && now_ >= next_progress_) {
        log_.print_progress();
        next_progress_ = now_ + std::chrono::seconds(1);
    }
    if ((f.slow == 0 && f.delay == 0) || now_ - last_tick_ < milliseconds(kTickMilliseconds))
        return;
    int64_t share = std::max<int64_t>(1, f.slow * kTickMilliseconds / 1000);
    last_tick_ = now_;
    for (auto &[fd, client] : clients_) {
        if (client->dead) continue;
        client->allowance = share;
        service(*client);
        if (stop_) return;
    }
}

void server::accept_all() {
    for (;;) {
        int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0) {
            adopt(fd);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED) continue;
        if (errno == EMFILE || errno == ENFILE) {
            // The next connection that ends makes room; until then the queue has to wait.
            epoll_ctl(epoll_, EPOLL_CTL_DEL, listener_, nullptr);
            listener_paused_ = true;
        }
        return;
    }
}

void server::adopt(int fd) {
    auto owner = std::make_unique<connection>();
    connection &c = *owner;
    c.fd = fd;
    c.number = ++log_.counts.connections;
    c.faulty = c.number <= static_cast<uint64_t>(chosen_.accept_faulty);
    c.allowance = std::max<int64_t>(1, chosen_.faults.slow * kTickMilliseconds / 1000);
    c.sniffing = chosen_.tls == tls_mode::any;
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    clients_[fd] = std::move(owner);
    if (!watch(fd, c.interest = EPOLLIN)) return fail(c, "cannot watch");
    if (log_.verbose()) {
        sockaddr_storage peer = {};
        socklen_t length = sizeof peer;
        getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &length);
        note_connection(c, "connect", peer_text(peer, length));
    }
    if (chosen_.tls == tls_mode::always) {
        c.tls = tls_open(tls_, fd);
        c.handshaking = true;
    }
    apply_event_limits(c);
    push_out(c);
}

void server::advance_handshake(connection &c) {
    if (!c.tls) return fail(c, "no TLS stream");
    io_result result = tls_handshake(c.tls.get());
    c.tls_wants_write = result.state == io_state::want_write;
    if (result.state == io_state::failed || result.state == io_state::closed)
        return fail(c, "TLS handshake failed: " + tls_last_error());
    if (result.state != io_state::done) return;
    c.handshaking = false;
    if (log_.verbose()) note_connection(c, "tls", tls_describe(c.tls.get()));
}

/** Sends what is due, then ends, upgrades or goes on with the connection. */
void server::push_out(connection &c) {
    if (c.dead) return;
    while (!c.delayed.empty() && c.delayed.front().due <= now_) {
        c.unsent += c.delayed.front().bytes;
        c.delayed.pop_front();
    }
    if (!c.unsent.empty() && !c.handshaking) {
        // Whoever gets an answer may forget what it sent before.
        log_.flush();
        if (!c.send_unsent()) return fail(c, "cannot send");
    }
    if ((c.closing || (c.ended && !c.cut_short)) && c.drained()) return fail(c, c.reason);
    if (c.start_tls && c.drained()) {
        // What came behind the request was read as plain bytes and cannot become TLS any more.
        if (!c.carry.empty()) return fail(c, "bytes arrived ahead of the answer to ReqSSL");
        c.start_tls = false;
        c.tls = tls_open(tls_, c.fd);
        c.handshaking = true;
        advance_handshake(c);
    }
    update_interest(c);
}

void server::update_interest(connection &c) {
    if (c.dead) return;
    bool slow = chosen_.faults.slow > 0 && c.faulty && c.allowance <= 0;
    bool reads = c.open_for_reading() && !slow;
    uint32_t wanted = 0;
    if (reads || c.handshaking) wanted |= EPOLLIN;
    if ((!c.unsent.empty() && !c.handshaking) || (c.handshaking && c.tls_wants_write))
        wanted |= EPOLLOUT;
    if (wanted == c.interest) return;
    c.interest = wanted;
    epoll_event event = {};
    event.events = wanted;
    event.data.fd = c.fd;
    if (epoll_ctl(epoll_, EPOLL_CTL_MOD, c.fd, &event) != 0) fail(c, "cannot watch");
}

/** Marks a connection as ended; its memory goes with remove_dead(), when nobody uses it. */
void server::fail(connection &c, std::string reason) {
    if (c.dead) return;
    c.dead = true;
    c.reason = std::move(reason);
    dead_.push_back(c.fd);
}

void server::remove_dead() {
    for (int fd : dead_) {
        connection &c = *clients_[fd];
        log_.save(c.carry.data(), c.carry.size());
        if (c.ended && !c.carry.empty()) note_garbage(c, c.carry.size());
        if (log_.verbose()) note_connection(c, "disconnect", c.reason);
        log_.flush();
        c.end();
        clients_.erase(fd);
        closed_++;
        if (chosen_.connections > 0 && closed_ >= static_cast<uint64_t>(chosen_.connections))
            stop_ = true;
    }
    if (!dead_.empty() && listener_paused_) listener_paused_ = !watch(listener_, EPOLLIN);
    dead_.clear();
}

}  // namespace receiver
