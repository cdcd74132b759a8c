#pragma once
/// The per-thread error state and the texts of its codes.
///
/// Every function returns what a failing caller returns, so that `return ruv::fail(13);` is the
/// whole of reporting a failure. The codes' texts stand once, in error.cpp. Any thread, no lock.
#include <cstddef>

#include "ruv/ruvlib.h"

namespace ruv {

/// Sets the error code; the arguments of an earlier failure stay. @return -1
int fail(int code);

/// Sets the error code and its first argument (ruverrno2). @return -1
int fail(int code, int argument);

/// Error 3: a system call failed with `saved_errno`, which is put back into errno. @return -1
int fail_system(int saved_errno);

/// Error 6: the TLS library failed; the arguments are the call's result, SSL_get_error's and
/// ERR_get_error's. @return -1
int fail_tls(int ret, int ssl_error, int err);

/// As fail(), for functions that return pointers. @return null
inline std::nullptr_t fail_null(int code) {
    return fail(code), nullptr;
}
inline std::nullptr_t fail_null(int code, int argument) {
    return fail(code, argument), nullptr;
}

/// Writes the text of `err` into `errstr` (512 bytes are ample); `conn` may be null.
/// @return false for an unassigned code, whose text says so. The error state is not touched.
bool error_text(const RUVConn *conn, int err, char *errstr);

}  // namespace ruv
