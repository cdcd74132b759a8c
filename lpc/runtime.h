// The runtime of the process as plain calls.
#pragma once

#include <string>

#include "lpc/serialization.h"
#include "lpc/vlr_runtime.h"

namespace velmor_com::NQ::LPC {

/// Tells the process-wide LPCFactory who this process is and loads the runtime; results and
/// ownership as LPCDylibManager::initialize(). Main thread.
int initializeLPC(const std::string &processId, const std::wstring &tmpDir,
                  VlrLpcCallbacks *&callbacks, ISerializationFactory *&factory);

/// Unloads the runtime without calling the uninstalled callback; a reload that is under way ends
/// first. Main thread. When it returns, no thread of the runtime is left.
void deinitializeLPC();

/// Unloads the runtime and calls the uninstalled callback. Not on a thread of the runtime.
void unloadLPCRuntime();

/// Loads the runtime again after it was replaced. Returns 0; 1 when the library is gone from the
/// place that the agent names; -1 on any other failure. Not on a thread of the runtime.
int loadNewLPCRuntime();

}  // namespace velmor_com::NQ::LPC
