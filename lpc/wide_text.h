// Text between the two widths for the framework's own needs: paths and identifiers.
#pragma once

#include <string>

namespace velmor_com::NQ::LPC {

/// Decodes in the current locale; a byte that does not decode becomes the character of its number.
std::wstring widen_text(const std::string &text);

/// The reverse for identifiers: characters above 255 become "?".
std::string narrow_text(const std::wstring &text);

}  // namespace velmor_com::NQ::LPC
