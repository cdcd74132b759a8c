// The identifier of a process towards the runtime: "base:tag:suffix", or a plain name without a
// colon, of at most 50 characters.
#pragma once

#include <string>

namespace velmor_com::NQ::LPC {

constexpr size_t kMaxProcessIdLength = 50;

/// Begins the identifiers of the agent itself.
constexpr char kAgentPrefix[] = "OZUAGENT";

/// Classes of identifiers; the numbers are part of the contract.
enum LPCIdType : int {
    kInvalidId = -1,
    kTaggedId = 0,     ///< a tag of several characters and the suffix "0001"
    kDefaultId = 1,    ///< the tag "DEFAULT" and another suffix
    kShortTagId = 2,   ///< a tag of one character and the suffix "0001"
    kAgentId = 3,      ///< begins with "OZUAGENT"
    kPlainNameId = 4,  ///< contains no colon
};

/// Classifies an identifier.
int getLPCIdType(const std::string &id);

/// Stores base:tag:suffix in `out`. The suffix is "0001", for the tag "DEFAULT" the decimal process
/// id. False, after an error line, when base or tag is empty (`out` is unchanged) or the result
/// would be too long (`out` is then empty).
bool generateLPCProcessUID(const std::string &base, const std::string &tag, std::string &out);

}  // namespace velmor_com::NQ::LPC
