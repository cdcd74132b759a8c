#pragma once
/// Asking the resolver, which is silent for as long as the host's configuration lets a dead name
/// server be.
#include <netdb.h>

#include "ruv/conn.h"

namespace ruv {

/// Looks conn->host up. For a handle with an interrupt callback the resolver's call runs on a
/// thread of its own, on which all signals are blocked, and the callback is asked meanwhile. A
/// thread whose answer is no longer wanted frees it when it comes.
/// @return false when interrupted; otherwise true with the resolver's code and, when that is 0, a
/// list that the caller frees.
bool resolve(const RUVConn *conn, const addrinfo &hints, int *code, addrinfo **list);

}  // namespace ruv
