// Whether a process has a connection to its Receiver, asked of the kernel's tables.
#pragma once

#include <optional>

enum class receiver_link {
    none,            ///< no connection to that port
    closed_by_peer,  ///< the Receiver closed it; the collector notices with the next event
    established,
};

/// The best connection of process `pid` to port `port` of any host, or nothing when the process may
/// not be looked at: only root and its own user may.
std::optional<receiver_link> find_receiver_link(long pid, long port);
