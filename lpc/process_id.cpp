#include "lpc/process_id.h"

#include <unistd.h>

#include <algorithm>

#include "lpc/logger.h"

namespace velmor_com::NQ::LPC {

namespace {

constexpr wchar_t kModule[] = L"Helper";
constexpr char kDefaultTag[] = "DEFAULT";
constexpr char kFixedSuffix[] = "0001";

bool refuse(const wchar_t *why) {
    Services::LPCLogger::getLogger()->logError(kModule, why);
    return false;
}

}  // namespace

int getLPCIdType(const std::string &id) {
    const auto colons = std::count(id.begin(), id.end(), ':');
    if (id.empty() || id.size() > kMaxProcessIdLength || colons == 1 || colons > 2)
        return kInvalidId;
    if (id.starts_with(kAgentPrefix)) return kAgentId;
    if (colons == 0) return kPlainNameId;

    const size_t first = id.find(':'), second = id.find(':', first + 1);
    const std::string tag = id.substr(first + 1, second - first - 1);
    const bool fixed_suffix = id.substr(second + 1) == kFixedSuffix;
    if (tag == kDefaultTag) return fixed_suffix ? kInvalidId : kDefaultId;
    if (tag.empty() || !fixed_suffix) return kInvalidId;
    return tag.size() == 1 ? kShortTagId : kTaggedId;
}

bool generateLPCProcessUID(const std::string &base, const std::string &tag, std::string &out) {
    if (base.empty() || tag.empty()) return refuse(L"Invalid argument");
    const std::string suffix = tag == kDefaultTag ? std::to_string(getpid()) : kFixedSuffix;
    out = base + ":" + tag + ":" + suffix;
    if (out.size() <= kMaxProcessIdLength) return true;
    out.clear();
    return refuse(L"LPC process ID exceeds max ID length");
}

}  // namespace velmor_com::NQ::LPC
