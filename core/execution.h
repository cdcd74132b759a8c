// The execution state of the process: one word that every worker polls, and the waits built on it.
//
// The word is a small bit set: running 1, stopped 2, paused 4. It reads 1 while the daemon
// executes, 5 while a restart is in progress, 2 once a stop was asked for; it never goes back from
// 2 to 1. All functions may be called on any thread and take no lock; stop_execution,
// pause_execution and resume_execution may also be called from a signal handler.
#pragma once

#include <csignal>
#include <cstdint>

enum : int32_t { kStateRunning = 1, kStateStopped = 2, kStatePaused = 4 };

/// Returns the whole state word.
int exec_status();

/// Returns 1 while the state is exactly "running", else 0. Workers test this one, so that they
/// leave their loops both at a stop and at a restart.
int is_executing();

/// Asks for the end of the process: clears running and paused, sets stopped, wakes every wait.
void stop_execution();

/// Sets the paused bit (a restart begins); wakes the workers' waits.
void pause_execution();

/// Clears the paused bit, and nothing else: a stop that came during the pause is kept.
void resume_execution();

/// Returns 1 until a stop was asked for, also while paused. The main loop tests this one.
int is_running();

/// Sets the state to "running" again. For start-up and for tests that simulate several lives.
void execution_reset_for_start();

/// Waits until the workers must leave, at most `milliseconds`. Returns is_executing().
int wait_while_executing(int milliseconds);

/// Waits until `fd` can be read or the workers must leave, at most `milliseconds`. Returns 1 when
/// it can be read.
int wait_readable_while_executing(int fd, int milliseconds);

/// Waits until a stop is asked for, at most `milliseconds`. Returns is_running().
int wait_while_running(int milliseconds);

/// First call of a worker thread: workers are started while a restart still holds the state at
/// "paused", and such a worker waits here until the restart ends. Returns is_executing(); 0 means
/// that the worker must leave at once (a stop, or somebody already waits for its end).
int wait_until_resumed();

/// Between these two calls a worker that waits in wait_until_resumed() leaves instead. Whoever
/// joins workers encloses the join in them; pairs may nest and overlap.
void begin_joining_workers();
void end_joining_workers();

/// Keeps the signals that stop the daemon (1, 2, 3 and 15) away from the calling thread for the
/// life of the guard. Threads created meanwhile inherit the mask, so that these signals are always
/// handled by the main thread and never interrupt a worker's system call.
class stop_signals_blocked {
  public:
    stop_signals_blocked();
    ~stop_signals_blocked();
    stop_signals_blocked(const stop_signals_blocked &) = delete;
    stop_signals_blocked &operator=(const stop_signals_blocked &) = delete;

  private:
    sigset_t previous_;
};
