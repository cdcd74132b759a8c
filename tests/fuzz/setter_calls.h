#pragma once
// Every setter as a call that takes its arguments from fuzz input.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ruv/record.h"
#include "ruv/ruvlibsetters.h"

namespace program {

// Takes numbers from the input; zeros behind its end.
class source {
  public:
    source(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool empty() const { return at_ >= size_; }
    uint64_t take(size_t bytes) {
        uint64_t value = 0;
        const size_t count = std::min(bytes, size_ - std::min(at_, size_));
        memcpy(&value, data_ + std::min(at_, size_), count);
        at_ += bytes;
        return value;
    }

  private:
    const uint8_t *data_;
    size_t size_, at_ = 0;
};

// A text that is as long as any length that the setters are called with.
inline const std::string &text() {
    static const std::string bytes = [] {
        std::string made(70'000, 'x');
        for (size_t i = 0; i < made.size(); ++i) made[i] = static_cast<char>(i * 7 % 255 + 1);
        return made;
    }();
    return bytes;
}

inline int length(source &input) {
    const auto value = static_cast<int32_t>(input.take(4));
    return value < 0 ? value : value % 70'000;
}

using call = std::function<void(RUVConn *, void *, source &)>;

inline const std::vector<call> &calls() {
    static const std::vector<call> all = {
#define NAME(kind, name) RUV##kind##Set_##name
#define SCALAR(kind, name, ctype, field, bit, versions, limit) \
    [](RUVConn *, void *r, source &s) { NAME(kind, name)(r, static_cast<ctype>(s.take(8))); },
#define BYTES(kind, name, ctype, field, bit, versions)     \
    [](RUVConn *, void *r, source &s) {                    \
        const uint64_t values[2] = {s.take(8), s.take(8)}; \
        ctype copy[16 / sizeof(ctype)];                    \
        memcpy(copy, values, sizeof copy);                 \
        NAME(kind, name)(r, copy);                         \
    },
#define WITH_TEXT(kind, name) \
    [](RUVConn *, void *r, source &s) { NAME(kind, name)(r, text().c_str(), length(s)); },
#define TEXT(kind, name, field, bit, versions) WITH_TEXT(kind, name)
#define ROW(kind, name, row, id, bit, versions) WITH_TEXT(kind, name)
#define PLAIN_ROW(kind, name, row, bit, versions) WITH_TEXT(kind, name)
#define THIRD_PARTY(kind, versions)                                      \
    [](RUVConn *, void *r, source &s) {                                  \
        NAME(kind, 3rd_party_type)(r, static_cast<uint16_t>(s.take(2))); \
    },
#include "ruv/setters.def"
        [](RUVConn *, void *r, source &s) { RUVAlertSet_packet(r, text().c_str(), length(s)); },
        [](RUVConn *, void *r, source &s) {
            const auto major = static_cast<int8_t>(s.take(1));
            RUVWinEventLogSet_windows_ver(r, major, static_cast<int8_t>(s.take(1)));
        },
        WITH_TEXT(WinEventLog, insertion_string)[](RUVConn * c, void *r, source &s){
            const std::string name = "f" + std::to_string(s.take(1) % 40);
    RUVAlertSet_custom_field(c, r, name.c_str(), text().c_str(), length(s) % 300);
}
,
    [](RUVConn *c, void *r, source &s) {
        const std::string name = "f" + std::to_string(s.take(1) % 40);
        RUVFlowSet_custom_field(c, r, name.c_str(), text().c_str(), length(s) % 300);
    },
    [](RUVConn *, void *r, source &) { RUVResetData(r); },
};  // namespace program
return all;
}

}  // namespace program
