// What passes between a process that offers services and the agent: frames on a local stream
// socket. A frame is its kind, the size of its body (both 32 bits, host order) and the body.
//
// The functions read and write; they never throw and share nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace loopback {

enum FrameKind : uint32_t {
    kHello = 1,      ///< the process identifier of whoever connected
    kCall,           ///< a call, answered by kAnswer
    kOneWay,         ///< a call that nobody waits for
    kAnswer,         ///< the code of the call and its answer
    kControl,        ///< a word for the runtime itself
    kControlAnswer,  ///< bytes
};

/// A whole call with all its parameters, plus some room for the framing.
constexpr uint32_t kMaxBody = (64u << 20) + 4096;

struct Frame {
    uint32_t kind = 0;
    std::string body;
};

/// The parameters of a call or its answer. `service` names the adaptor of a call, `code` is how a
/// call went.
struct Message {
    std::string service;
    int32_t code = 0;
    std::vector<std::string> parameters;
};

enum class Wait { kReady, kTimeout, kClosed };

/// Waits until the socket can be read; a negative limit waits for ever.
Wait wait_readable(int socket, int limit_milliseconds);

/// False when the other side is gone or sent no frame.
bool read_frame(int socket, Frame *frame);
bool write_frame(int socket, uint32_t kind, const std::string &body);

std::string pack(const Message &message);
bool unpack(const std::string &body, Message *message);

}  // namespace loopback
