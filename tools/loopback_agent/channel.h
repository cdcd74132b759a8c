// One connection between two processes, over which either may call the other. Calls nest: whoever
// waits for an answer serves the calls that come in meanwhile, so one thread on each side is
// enough.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "tools/loopback_agent/frame.h"

namespace loopback {

class Channel {
  public:
    /// Runs a call that came in; stores the answer. Any thread.
    using Serve = std::function<void(const Message &call, Message *answer)>;
    /// Answers a word for the runtime.
    using Control = std::function<std::string(const std::string &word)>;

    /// Owns the socket.
    Channel(int socket, Serve serve, Control control);
    ~Channel();
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;

    /// Who is at the other end; empty until it has said so.
    std::string peer();
    void set_peer(const std::string &id);
    bool hello(const std::string &own_id);

    /// Sends a call and, with `wait`, waits for its answer. Returns IObjectConnector::kDone or an
    /// error code. Any thread; one call at a time, but for those that nest. After a time-out the
    /// channel is closed, since its answer could come for a later call.
    int call(const Message &call, bool wait, unsigned timeout_seconds, Message *answer);
    /// Sends a word to the other runtime and returns its answer; false when it is gone.
    bool control(const std::string &word, std::string *answer);

    /// Serves what comes in until the other side is gone or the channel is shut.
    void serve_all();
    /// Makes every wait on this channel end. Any thread.
    void shut();

  private:
    /// Waits for one frame of that kind and serves calls meanwhile.
    int await(uint32_t kind, unsigned timeout_seconds, std::string *body);
    bool handle(const Frame &frame);

    const int m_socket;
    const Serve m_serve;
    const Control m_control;
    std::recursive_mutex m_use;  ///< held from a call to its answer
    std::mutex m_guard;          ///< guards the peer's name
    std::string m_peer;
};

}  // namespace loopback
