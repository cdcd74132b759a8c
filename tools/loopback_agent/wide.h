// UTF-8 to wide text and back, whatever the locale of the terminal is.
#pragma once

#include <string>

namespace loopback {

/// A byte that belongs to no valid sequence becomes the character of its number.
std::wstring from_utf8(const std::string &text);
std::string to_utf8(const std::wstring &text);

}  // namespace loopback
