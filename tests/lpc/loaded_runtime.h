// A process with a loaded runtime: what everything above the loader needs.
#pragma once

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "lpc/vlr_runtime.h"

namespace velmor_com::NQ::LPC {

/// The identifier of this test process; the runtime listens under it.
inline constexpr char kOwnId[] = "LOGRELAY1000:4711:0001";

/// Makes the archives of this process fail: with an exception that names its reason, or with
/// anything else.
enum class ArchiveFault { kNone, kKnown, kUnknown };
extern ArchiveFault archive_fault;

/// Both queues of a call in memory: what is written can be read again after turn().
class MemoryConnector : public IObjectConnector {
  public:
    bool write(const void *bytes, size_t size) override {
        out.emplace_back(static_cast<const char *>(bytes), size);
        return true;
    }
    int invoke(bool, unsigned) override { return kDone; }
    bool nextSize(size_t *size) override {
        if (in.empty()) return false;
        *size = in.front().size();
        return true;
    }
    bool read(void *bytes, size_t size) override {
        if (in.empty() || in.front().size() != size) return false;
        memcpy(bytes, in.front().data(), size);
        in.pop_front();
        return true;
    }
    void turn() {
        in.assign(out.begin(), out.end());
        out.clear();
    }

    std::vector<std::string> out;
    std::deque<std::string> in;
};

/// The bytes of an encoded parameter, from the characters of its archive.
inline std::string wire_bytes(const std::wstring &archive) {
    return {reinterpret_cast<const char *>(archive.data()), archive.size() * sizeof(wchar_t)};
}

}  // namespace velmor_com::NQ::LPC
