// The agent's place among the processes: finds a collector by its socket and talks to it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tools/loopback_agent/accessor.h"
#include "tools/loopback_agent/channel.h"

namespace loopback {

/// Process identifiers whose sockets in `folder` somebody listens on, in ascending order.
std::vector<std::string> running_processes(const std::string &folder);

/// Waits until a process whose identifier begins with `prefix` listens; empty when none does in
/// time. With several the last in order is taken.
std::string wait_for_process(const std::string &folder, const std::string &prefix, int seconds);

/// Asks the runtime of that process a word (channel.h); false when it cannot be reached.
bool ask_runtime(const std::string &folder, const std::string &process, const std::string &word,
                 std::string *answer);

/// Loads the runtime into this process and takes a part in the calls. One per process.
class Session {
  public:
    explicit Session(const std::string &folder);
    ~Session();
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    bool ready() const { return m_accessor != nullptr; }
    /// Through this the collector reads the policy; the runtime owns it.
    PolicyAccessor *accessor() { return m_accessor; }

  private:
    PolicyAccessor *m_accessor = nullptr;
};

}  // namespace loopback
