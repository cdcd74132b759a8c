#pragma once

// The link to the management agent of this host: the one door between the core, which is written
// as plain functions, and the class-based LPC framework. Without an agent the collector runs on
// unmanaged; no result of these calls ever stops it.

/// Brings the link up: obtains the pass phrase, loads the agent's LPC runtime, registers the
/// interfaces and starts the three services (update callback, property collection, policy
/// enforcement). From then on threads of the runtime call those services, until deinit_lpc().
///
/// Call once, on the main thread, after the logger has been started and before the plugins are.
///
/// @param log  sink for the messages of the framework (lpc_log); called on any thread
/// @return 0 serving, 1 no runtime is installed on this host, negative when the runtime is there
///         but could not be initialised
int init_lpc(void (*log)(int level, const wchar_t *message));

/// Takes the link down and unloads the runtime. When it returns, no thread of the runtime calls
/// the collector any more; a policy that is being enforced has come to its end. Must therefore be
/// called without any lock that such a call could be waiting for. Main thread, once.
void deinit_lpc();
