#pragma once
// A scripted Receiver on loopback for tests: every connection runs a script on a thread of its
// own, and everything that arrives is kept. Knows the protocol from its documented layout only.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace fake {

inline const std::string kMagic("\x55\xAA\x55\xAA\xCE\xFA\xED\xFE", 8);
inline const std::string kOkay("OKAY\0\0\0\0", 8);
inline const std::string kNotOkay("NOTOKAY\0", 8);

template <class T>
std::string bytes_of(T value) {
    return std::string(reinterpret_cast<const char *>(&value), sizeof value);
}

// One connection as its script sees it. Used by the script's thread only.
class peer {
  public:
    peer(int fd, std::mutex *lock, std::string *transcript)
        : fd_(fd), lock_(lock), transcript_(transcript) {}

    // Exactly `count` bytes, fewer at the end of the stream.
    std::string read(size_t count) {
        std::string got(count, 0);
        size_t used = 0;
        while (used < count) {
            const ssize_t part = recv(fd_, &got[used], count - used, 0);
            if (part <= 0) break;
            used += static_cast<size_t>(part);
        }
        got.resize(used);
        const std::lock_guard<std::mutex> guard(*lock_);
        *transcript_ += got;
        return got;
    }
    bool send(const std::string &text) {
        return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }
    // Ends the connection; with a reset when unread bytes must be refused loudly.
    void close() { shutdown(fd_, SHUT_RDWR); }
    void reset() {
        const linger now = {1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
        reset_ = true;
    }
    // Reads until the other side closes.
    void drain() {
        while (!read(1).empty()) {
        }
    }
    int fd() const { return fd_; }
    bool wants_reset() const { return reset_; }

  private:
    int fd_;
    std::mutex *lock_;
    std::string *transcript_;
    bool reset_ = false;
};

struct header {
    bool valid = false;  // false at the end of the stream or for a wrong magic
    uint32_t type = 0, version = 0;
    uint16_t third_party = 0, channel = 0;
};

inline header read_header(peer &p) {
    const std::string raw = p.read(16);
    header h;
    if (raw.size() != 16 || raw.compare(0, 8, kMagic) != 0) return h;
    uint32_t word = 0;
    memcpy(&word, &raw[8], 4);
    memcpy(&h.third_party, &raw[12], 2);
    memcpy(&h.channel, &raw[14], 2);
    h.type = word >> 8 & 0xFFF;
    h.version = word >> 20;
    h.valid = (word & 0xFF) == 6;
    return h;
}

// Runs scripts: connection i gets script i, later ones the last.
class receiver {
  public:
    using script = std::function<void(peer &)>;

    explicit receiver(script only) : receiver(std::vector<script>{std::move(only)}) {}
    explicit receiver(std::vector<script> scripts, int family = AF_INET)
        : scripts_(std::move(scripts)) {
        listener_ = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_storage address = {};
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET)
            reinterpret_cast<sockaddr_in *>(&address)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        else
            reinterpret_cast<sockaddr_in6 *>(&address)->sin6_addr = in6addr_loopback;
        socklen_t size = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        usable_ = bind(listener_, reinterpret_cast<sockaddr *>(&address), size) == 0 &&
                  listen(listener_, 16) == 0 &&
                  getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &size) == 0;
        port_ = ntohs(reinterpret_cast<sockaddr_in *>(&address)->sin_port);
        if (usable_) acceptor_ = std::thread([this] { accept_all(); });
    }
    ~receiver() { stop(); }
    receiver(const receiver &) = delete;

    // Ends every connection and refuses new ones; waits for the scripts.
    void stop() {
        if (stopping_.exchange(true)) return;
        if (acceptor_.joinable()) acceptor_.join();
        {
            const std::lock_guard<std::mutex> guard(lock_);
            for (const int fd : open_) shutdown(fd, SHUT_RDWR);
        }
        for (std::thread &runner : runners_) runner.join();
        ::close(listener_);
    }
    bool usable() const { return usable_; }
    int port() const { return port_; }
    int connections() const { return connections_; }
    std::string received() const {
        const std::lock_guard<std::mutex> guard(lock_);
        return transcript_;
    }
    // Waits until `count` connections were accepted, at most 30 s; returns how many there are.
    int wait_connections(int count) const {
        for (int i = 0; i < 3000 && connections_ < count; ++i) usleep(10'000);
        return connections_;
    }
    // Waits until `count` bytes have arrived, at most 30 s; returns what there is.
    std::string wait_received(size_t count) const {
        for (int i = 0; i < 3000 && received().size() < count; ++i) usleep(10'000);
        return received();
    }

  private:
    void accept_all() {
        while (!stopping_) {
            pollfd watched = {listener_, POLLIN, 0};
            if (poll(&watched, 1, 50) <= 0) continue;
            const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            const size_t index = static_cast<size_t>(connections_++);
            const script &chosen = scripts_[std::min(index, scripts_.size() - 1)];
            const std::lock_guard<std::mutex> guard(lock_);
            open_.push_back(fd);
            runners_.emplace_back([this, fd, &chosen] { run(fd, chosen); });
        }
    }
    void run(int fd, const script &chosen) {
        peer p(fd, &lock_, &transcript_);
        chosen(p);
        const std::lock_guard<std::mutex> guard(lock_);
        open_.remove(fd);
        if (!p.wants_reset()) shutdown(fd, SHUT_RDWR);
        ::close(fd);
    }

    std::vector<script> scripts_;
    int listener_ = -1, port_ = 0;
    bool usable_ = false;
    std::atomic<bool> stopping_{false};
    std::atomic<int> connections_{0};
    std::thread acceptor_;
    mutable std::mutex lock_;  // guards what follows
    std::list<std::thread> runners_;
    std::list<int> open_;
    std::string transcript_;
};

// ---- A well-behaved version-6 Receiver.

struct version6 {
    // (protocol version, data type, type version) of the version list.
    std::vector<std::array<uint16_t, 3>> versions = {
        {6, 0, 0}, {6, 0, 1}, {6, 0, 2}, {6, 0, 3}, {6, 0, 4}, {6, 0, 5}, {6, 0, 6},
        {6, 1, 0}, {6, 1, 1}, {6, 2, 0}, {6, 2, 1}, {6, 3, 0}, {6, 3, 1}, {6, 4, 0}};
    int32_t channel = 7;    // the answer to every GetChanID
    std::string catalogue;  // offered when the list names request 7
    bool knows = true;      // the answer to AmKnown
    std::string nop = kOkay;
};

inline std::string version_list(const std::vector<std::array<uint16_t, 3>> &versions) {
    std::string list = bytes_of(static_cast<int32_t>(versions.size()));
    for (const auto &[protocol, type, version] : versions)
        list += bytes_of(protocol) + bytes_of(type) + bytes_of(version) + std::string(26, 0);
    return list;
}

// Answers one unit. Returns false at the end of the stream or for what it does not know.
inline bool serve_one(peer &p, const version6 &v) {
    const header h = read_header(p);
    if (!h.valid) return false;
    if (h.type == 3) {
        const std::string block = p.read(8);
        uint16_t length = 0;
        if (block.size() == 8) memcpy(&length, &block[6], 2);
        return block.size() == 8 && p.read(length).size() == length;
    }
    if (h.type != 0) return false;
    switch (h.version) {
        case 0:
            return p.send(v.nop);
        case 2:
            return p.send(kOkay + version_list(v.versions));
        case 3: {
            const std::string head = p.read(4);
            uint16_t length = 0;
            if (head.size() == 4) memcpy(&length, &head[2], 2);
            return p.read(length).size() == length && p.send(kOkay + bytes_of(v.channel));
        }
        case 8:
            p.read(4);
            [[fallthrough]];
        case 4:
            return p.send(v.knows ? kOkay : kNotOkay);
        case 6:
            return p.send(kOkay +
                          std::string("\x0b\0\x02\0\x03\0r4\x08\x07\x06\x05\x04\x03\x02\x01", 16));
        case 7:
            return p.send(kOkay + bytes_of(static_cast<int32_t>(v.catalogue.size())) + v.catalogue);
        default:
            return p.send(kNotOkay);
    }
}

inline receiver::script serve(version6 v = {}) {
    return [v](peer &p) {
        while (serve_one(p, v)) {
        }
    };
}

}  // namespace fake
