// Where the agent keeps its libraries on this host. Nothing here logs.
#pragma once

#include <string>

namespace velmor_com::NQ::LPC {

/// The agent's configuration file, which names the folder.
constexpr char kAgentConfigFile[] = "/etc/cmx.d/OZUAGENT3700LYNX/config.xml";

/// A larger file is taken for missing; the agent's own is a fraction of it.
constexpr size_t kMaxAgentConfigBytes = 8192;

/// Takes the value of the element "SharedLibLocation" out of the file's text: what stands between
/// the first opening tag and the next closing tag, without its line feeds. False when either tag
/// is missing.
bool parse_shared_lib_location(const std::string &text, std::string *folder);

/// Reads the agent's configuration file and stores the folder. False when the file is missing,
/// unreadable or too large, or does not name one.
bool read_shared_lib_location(const std::string &file, std::string *folder);

}  // namespace velmor_com::NQ::LPC
