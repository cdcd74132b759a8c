// Lays out a folder as an agent's installation: its two libraries, its configuration file, and the
// faults that it plays.
#pragma once

#include <string>
#include <vector>

namespace loopback {

/// Faults that the runtime plays, by a line of the file "faults".
bool is_fault(const std::string &word);

/// Links the libraries of this build into `folder`, which is created, and writes config.xml, to be
/// put where collectors look for it. Of the faults, "missing-symbol" chooses another library, the
/// others are left in "faults". False with the reason in `error`.
bool prepare_folder(const std::string &folder, const std::vector<std::string> &faults,
                    std::string *error);

}  // namespace loopback
