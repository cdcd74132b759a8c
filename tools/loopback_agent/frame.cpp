#include "tools/loopback_agent/frame.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>

namespace loopback {

namespace {

constexpr uint32_t kMaxParameters = 64;

struct FrameHead {
    uint32_t kind, size;
};

bool read_all(int socket, char *to, size_t size) {
    while (size > 0) {
        const ssize_t got = recv(socket, to, size, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        to += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

bool write_all(int socket, const char *from, size_t size) {
    while (size > 0) {
        const ssize_t sent = send(socket, from, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        from += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

void put_number(std::string *to, uint32_t number) {
    char bytes[sizeof(number)];
    memcpy(bytes, &number, sizeof(number));
    to->append(bytes, sizeof(number));
}

void put_text(std::string *to, const std::string &text) {
    put_number(to, static_cast<uint32_t>(text.size()));
    *to += text;
}

// Reads the pieces of a body one after another.
class Body {
  public:
    explicit Body(const std::string &bytes) : m_bytes(bytes) {}

    bool number(uint32_t *value) {
        if (m_bytes.size() - m_at < sizeof(*value)) return false;
        memcpy(value, m_bytes.data() + m_at, sizeof(*value));
        m_at += sizeof(*value);
        return true;
    }

    bool text(std::string *value) {
        uint32_t size = 0;
        if (!number(&size) || m_bytes.size() - m_at < size) return false;
        value->assign(m_bytes, m_at, size);
        m_at += size;
        return true;
    }

    bool at_end() const { return m_at == m_bytes.size(); }

  private:
    const std::string &m_bytes;
    size_t m_at = 0;
};

}  // namespace

Wait wait_readable(int socket, int limit_milliseconds) {
    pollfd entry{socket, POLLIN, 0};
    for (;;) {
        const int ready = poll(&entry, 1, limit_milliseconds);
        if (ready > 0) return Wait::kReady;
        if (ready == 0) return Wait::kTimeout;
        if (errno != EINTR) return Wait::kClosed;
    }
}

bool read_frame(int socket, Frame *frame) {
    FrameHead head;
    if (!read_all(socket, reinterpret_cast<char *>(&head), sizeof(head))) return false;
    if (head.size > kMaxBody) return false;
    frame->kind = head.kind;
    frame->body.clear();
    // Grows with what has really come, so that a size alone takes no memory.
    constexpr size_t kStep = size_t{1} << 20;
    while (frame->body.size() < head.size) {
        const size_t at = frame->body.size();
        const size_t step = std::min(kStep, head.size - at);
        frame->body.resize(at + step);
        if (!read_all(socket, frame->body.data() + at, step)) return false;
    }
    return true;
}

bool write_frame(int socket, uint32_t kind, const std::string &body) {
    if (body.size() > kMaxBody) return false;
    std::string bytes;
    put_number(&bytes, kind);
    put_text(&bytes, body);
    return write_all(socket, bytes.data(), bytes.size());
}

std::string pack(const Message &message) {
    std::string body;
    put_text(&body, message.service);
    put_number(&body, static_cast<uint32_t>(message.code));
    put_number(&body, static_cast<uint32_t>(message.parameters.size()));
    for (const std::string &parameter : message.parameters) put_text(&body, parameter);
    return body;
}

bool unpack(const std::string &bytes, Message *message) {
    Body body(bytes);
    uint32_t code = 0, count = 0;
    if (!body.text(&message->service) || !body.number(&code) || !body.number(&count) ||
        count > kMaxParameters)
        return false;
    message->code = static_cast<int32_t>(code);
    message->parameters.assign(count, {});
    for (std::string &parameter : message->parameters)
        if (!body.text(&parameter)) return false;
    return body.at_end();
}

}  // namespace loopback
