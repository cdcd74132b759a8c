#pragma once
/// Diagnostics on standard error: the five switches of RUVSetLogging, the lines at the public
/// functions, trace points and the hex dumps of both directions. Any thread; the switches are
/// meant to be set once before use.
#include <sys/uio.h>

#include <atomic>
#include <type_traits>

#include "ruv/error.h"

extern std::atomic<int> debug_fn_call;  ///< enter and exit lines of the public functions
extern std::atomic<int> debug_send;     ///< dump of every write
extern std::atomic<int> debug_recv;     ///< dump of every read
extern std::atomic<int> debug_trace;    ///< trace points; replaces the enter and exit lines
extern std::atomic<int> debug_data;     ///< header print and record printers

namespace ruv {

inline bool enabled(const std::atomic<int> &debug_switch) {
    return debug_switch.load(std::memory_order_relaxed) != 0;
}

/// A trace point: its line when `debug_trace` is on. The caller's name and line fill themselves.
void trace_line(const char *function, int line);
inline void trace_point(const char *function = __builtin_FUNCTION(), int line = __builtin_LINE()) {
    if (enabled(debug_trace)) [[unlikely]]
        trace_line(function, line);
}

/// The lines at a public function's start and end (slow paths of traced()).
void trace_enter(const char *function, int line);
void trace_exit(const char *function, int line, bool failed);

/// Runs the body of the public function `name` between its enter and exit lines and returns the
/// body's result. A negative number or a null pointer counts as failure.
template <class Body>
auto traced(const char *name, Body body, int line = __builtin_LINE()) {
    const auto lines = [] { return enabled(debug_fn_call) || enabled(debug_trace); };
    if (lines()) [[unlikely]]
        trace_enter(name, line);
    auto result = body();
    if (lines()) [[unlikely]] {
        if constexpr (std::is_pointer_v<decltype(result)>)
            trace_exit(name, line, result == nullptr);
        else
            trace_exit(name, line, result < 0);
    }
    return result;
}

/// Prints `title` ("Sending:\n" or "Received:\n") and a hex dump of every segment.
void dump_segments(const char *title, int iovcnt, const iovec *iov);

}  // namespace ruv
