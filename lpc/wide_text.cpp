#include "lpc/wide_text.h"

#include <cwchar>

namespace velmor_com::NQ::LPC {

std::wstring widen_text(const std::string &text) {
    std::wstring wide;
    std::mbstate_t state{};
    size_t at = 0;
    while (at < text.size()) {
        wchar_t c = 0;
        const size_t used = std::mbrtowc(&c, text.data() + at, text.size() - at, &state);
        const bool decoded = used != 0 && used <= text.size() - at;
        wide += decoded ? c : static_cast<wchar_t>(static_cast<unsigned char>(text[at]));
        at += decoded ? used : 1;
        if (!decoded) state = {};
    }
    return wide;
}

std::string narrow_text(const std::wstring &text) {
    std::string narrow;
    for (const wchar_t c : text) narrow += c >= 0 && c <= 0xff ? static_cast<char>(c) : '?';
    return narrow;
}

}  // namespace velmor_com::NQ::LPC
