// The life of the process: start-up, wait, shutdown and restart, each a list of calls.
//
// One lock serialises start-up, restart and shutdown, since a policy may ask for a restart at any
// moment on a thread of the agent bridge (core/restart.h). Everything here but restart_collector()
// and the signal handler runs on the main thread.
#pragma once

#include <atomic>
#include <cstdint>

/// Number of the last signal received, 0 until one arrives; the exit status of the process.
extern std::atomic<int32_t> process_sig;

/// Handler of the signals 1, 2, 3 and 15: stores the number and stops the execution. The line in
/// the log is written later by the main thread, since a handler must not call the logger.
void signal_handler(int signum);

/// Opens /dev/null on each of the descriptors 0 to 2 that is closed, so that no file of ours ever
/// becomes a standard stream.
void occupy_standard_streams();

/// Installs signal_handler(), lets its signals through, and ignores signal 13.
void install_signal_handlers();

/// The steps from the command line to the running plugins. Returns 0 when the process is to enter
/// its wait loop (also when the bookmark directory could not be created and execution is already
/// stopped), 1 when it is to end with status 1. Invalid arguments and a lock that is held end the
/// process inside.
int start_collector(int argc, char **argv);

/// Sleeps until a stop is asked for.
void wait_for_stop();

/// Takes everything down in the order in which the parts depend on each other. Returns the exit
/// status.
int shut_down_collector();

/// Detaches by hand: forks, starts a session, goes to "/", closes standard input. The start-up uses
/// the C library's daemon() instead; this is kept as the alternative.
void daemonize_me();
