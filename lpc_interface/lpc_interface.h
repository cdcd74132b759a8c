// The link to the management agent of this host: the one door between the core, which is written
// as plain functions, and the class-based LPC framework. Without an agent the collector runs on
// unmanaged; no result of these calls ever stops it.
#pragma once

#include <cstdint>

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

/// The pass phrase that this process presents to the runtime, and the number of its valid bytes.
/// Written by init_lpc() before the runtime is loaded, read-only afterwards. Not text.
constexpr uint32_t kPassphraseCapacity = 64;
extern unsigned char g_lpc_passphrase[kPassphraseCapacity];
extern uint32_t g_passphrase_length;

/// Registers the five interface factories; stops at the first failure. True when all are
/// registered. Main thread, before any service runs.
bool registerInterfaces();

/// The runtime has become available: starts three new services, each whatever became of the
/// others. Called by init_lpc() and, after the agent was restarted, on a thread of the runtime.
void startPointProductServicesCallBack();

/// The runtime goes away: there is nothing to stop, it takes the services with it.
void stopPointProductServicesCallBack();

/// Gives the runtime the pass phrase: false, with nothing written, when arg2 or arg2_size is null
/// or *arg2_size, the capacity, is too small. arg1 is ignored. Any thread.
bool sHA1_Validation_callback(const unsigned char *arg1, unsigned long arg1_size,
                              unsigned char *arg2, unsigned long *arg2_size);
