// The agent's helper library, from which one function is needed. It is looked up at run time, so
// that the daemon runs on hosts without an agent.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velmor_com::NQ::LPC {

/// Fills `buffer` with the pass phrase that the helper library generates and stores with the agent
/// for `softwareId`. *length is the capacity on entry and the number of valid bytes afterwards,
/// never more than that capacity. Without the library, or without the function in it, the whole
/// buffer is filled from the system's random source.
///
/// The library is looked for beside the agent's runtime first and by the dynamic loader's search
/// second; it stays loaded. Returns whether the library was found.
bool obtain_passphrase(const char *softwareId, unsigned char *buffer, uint32_t *length);

}  // namespace velmor_com::NQ::LPC
