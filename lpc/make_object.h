// How the templates of the framework make objects: what goes wrong is an error line under the
// module "LPCUtilityAPI" and null, never an exception. Any thread.
#pragma once

#include <cstddef>
#include <new>

#include "lpc/logger.h"

namespace velmor_com::NQ::LPC {

/// Logs the error and returns null.
inline std::nullptr_t refuse_object(const wchar_t *why) {
    Services::LPCLogger::getLogger()->logError(L"LPCUtilityAPI", why);
    return nullptr;
}

/// A new T, owned by the caller; null when there is no memory for it or for what it holds.
template <class T, class... Arguments>
T *make_object(Arguments... arguments) try {
    T *const object = new (std::nothrow) T(arguments...);
    return object ? object : refuse_object(L"Memory allocation failure");
} catch (const std::bad_alloc &) {
    return refuse_object(L"Memory allocation failure");
}

}  // namespace velmor_com::NQ::LPC
