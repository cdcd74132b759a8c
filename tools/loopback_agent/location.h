// Where the loopback agent keeps its things, and which faults it plays.
#pragma once

#include <string>

namespace loopback {

/// The folder of the sockets and faults: LOOPBACK_AGENT_DIR, else where this library lies.
std::string own_folder();

/// Whether a fault was asked for, by a line of the file "faults" in that folder; `value` receives
/// what follows "=".
bool has_fault(const std::string &name, std::string *value = nullptr);

}  // namespace loopback
