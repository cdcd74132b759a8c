#include "tools/loopback_agent/channel.h"

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "lpc/errors.h"
#include "lpc/vlr_runtime.h"

namespace loopback {

using namespace velmor_com::NQ::LPC;

namespace {

// Enforcing a policy ends with a restart of the collector, which may have to wait for its workers.
constexpr unsigned kDefaultSeconds = 300;

using Clock = std::chrono::steady_clock;

int milliseconds_until(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

Channel::Channel(int socket, Serve serve, Control control)
    : m_socket(socket), m_serve(std::move(serve)), m_control(std::move(control)) {
}

Channel::~Channel() {
    close(m_socket);
}

std::string Channel::peer() {
    std::lock_guard guard(m_guard);
    return m_peer;
}

void Channel::set_peer(const std::string &id) {
    std::lock_guard guard(m_guard);
    m_peer = id;
}

bool Channel::hello(const std::string &own_id) {
    return write_frame(m_socket, kHello, own_id);
}

void Channel::shut() {
    shutdown(m_socket, SHUT_RDWR);
}

int Channel::call(const Message &call, bool wait, unsigned timeout_seconds, Message *answer) {
    std::lock_guard use(m_use);
    if (!write_frame(m_socket, wait ? kCall : kOneWay, pack(call))) return ecCommunicationError;
    if (!wait) return IObjectConnector::kDone;
    std::string body;
    const int result = await(kAnswer, timeout_seconds, &body);
    if (result != IObjectConnector::kDone) return result;
    return unpack(body, answer) ? answer->code : static_cast<int>(ecProtocolError);
}

bool Channel::control(const std::string &word, std::string *answer) {
    std::lock_guard use(m_use);
    return write_frame(m_socket, kControl, word) &&
           await(kControlAnswer, 0, answer) == IObjectConnector::kDone;
}

int Channel::await(uint32_t kind, unsigned timeout_seconds, std::string *body) {
    const auto limit = std::chrono::seconds(timeout_seconds ? timeout_seconds : kDefaultSeconds);
    const Clock::time_point end = Clock::now() + limit;
    for (;;) {
        const Wait wait = wait_readable(m_socket, milliseconds_until(end));
        if (wait == Wait::kTimeout) {
            shut();
            return ecOperationTimedout;
        }
        Frame frame;
        if (wait == Wait::kClosed || !read_frame(m_socket, &frame)) return ecCommunicationError;
        if (frame.kind == kind) {
            *body = std::move(frame.body);
            return IObjectConnector::kDone;
        }
        if (!handle(frame)) return ecProtocolError;
    }
}

void Channel::serve_all() {
    for (;;) {
        if (wait_readable(m_socket, -1) != Wait::kReady) return;
        std::lock_guard use(m_use);
        // Another thread may have taken what had made the socket readable.
        if (wait_readable(m_socket, 0) == Wait::kTimeout) continue;
        Frame frame;
        if (!read_frame(m_socket, &frame) || !handle(frame)) return;
    }
}

bool Channel::handle(const Frame &frame) {
    Message call, answer;
    switch (frame.kind) {
        case kHello:
            set_peer(frame.body);
            return true;
        case kCall:
        case kOneWay:
            if (!unpack(frame.body, &call)) return false;
            m_serve(call, &answer);
            return frame.kind == kOneWay || write_frame(m_socket, kAnswer, pack(answer));
        case kControl:
            return write_frame(m_socket, kControlAnswer, m_control(frame.body));
        default:
            return false;
    }
}

}  // namespace loopback
