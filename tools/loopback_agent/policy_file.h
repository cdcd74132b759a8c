// A policy as a text file. Lines, each ended by a line feed:
//
//   # comment                      ignored, as are blank lines
//   @object FEATURE|CATEGORY|TYPE|NAME   begins a policy object; without one there is a default
//   @setting NAME|NUMBER|TEXT      begins a setting object; without one there is a default
//   [File.1]                       begins a section of the setting object
//   Log Directory=/var/log/app     one setting of the section
//
// In names and values "\n", "\r", "\0" and "\\" stand for a line feed, a carriage return, a NUL and
// a backslash, so that a file can hold what a policy must not.
#pragma once

#include <string>
#include <vector>

#include "lpc/values.h"

namespace loopback {

using namespace velmor_com::NQ::manageability;

struct Policy {
    Lpc_PolicyObjectContainer objects;
    /// Sections of each setting object, in the order of the objects and their settings.
    std::vector<Lpc_MultipleSectionsHandle> sections;
};

/// Reads a policy; false with what is wrong in `error`.
bool parse_policy(const std::string &text, Policy *policy, std::string *error);
bool read_policy(const std::string &file, Policy *policy, std::string *error);

}  // namespace loopback
