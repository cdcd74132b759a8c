#include "ruv/bodies.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "ruv/bodies_alert.h"
#include "ruv/bodies_flow.h"
#include "ruv/bodies_syslog.h"
#include "ruv/bodies_windows.h"

namespace {

using enum body_part;

constexpr int kSubversions = 3;

constexpr body_part kAlertParts1[] = {kMessage, kPacket};
constexpr body_part kAlertParts2[] = {kMessage, kRow6, kRow5, kRow0, kRow3, kRow2, kPacket};
constexpr body_part kAlertParts4[] = {kMessage, kRow6, kRow5, kRow0,  kRow3,
                                      kRow2,    kRow1, kRow4, kPacket};
constexpr body_part kAlertPartsRows[] = {kMessage, kRows, kPacket};
constexpr std::span<const body_part> kNothing;
constexpr body_part kFlowPartsRows[] = {kRows};
constexpr body_part kSyslogParts[] = {kText};
constexpr body_part kWindowsParts5[] = {kRow1, kRow2, kText, kStrings};
constexpr body_part kWindowsText[] = {
    kAddressText, kSeparator, kRow0,      kRecordNumber, kRow1,  kNumbers,       kRow2,
    kSeparator,   kRow3,      kSeparator, kRow4,         kCount, kFramedStrings, kText};

constexpr std::span<const body_slice> kWhole;
// From version 3 on a zero byte stands behind the version of an Alert.
constexpr body_slice kAlertSplit[] = {{0, 1}, {kZeroByte, 1}, {1, 127}};
constexpr body_slice kWinSlices[] = {{0, 2}, {4, 60}};

// Columns: type, versions, zero-based sub-versions, block, custom-field rows in it, fill function,
// slices, variable parts.
#define FORM(type, v1, v2, s1, s2, block, rows, fill, slices, parts) \
    { type, v1, v2, s1, s2, sizeof(block), rows, libruv_fill_##fill, slices, parts }

// clang-format off
constexpr body_form kForms[] = {
    FORM(kAlert,    1, 1, 0, 2, RUVv5_Alert_t,          0, alertv5,   kWhole,      kAlertParts1),
    FORM(kAlert,    2, 2, 0, 2, RUVv5_Alert_t,          0, alertv5,   kWhole,      kAlertParts2),
    FORM(kAlert,    3, 3, 0, 2, RUVv5_Alert_t,          0, alertv5,   kAlertSplit, kAlertParts2),
    FORM(kAlert,    4, 5, 0, 2, RUVv5_Alert_t,          0, alertv5,   kAlertSplit, kAlertParts4),
    FORM(kAlert,    6, 6, 0, 0, RUVv6_Alert_v1_t,       0, alertv6v1, kWhole,      kAlertParts4),
    FORM(kAlert,    6, 6, 1, 1, RUVv6_Alert_v2_t,      10, alertv6v2, kWhole,      kAlertPartsRows),
    FORM(kAlert,    6, 6, 2, 2, RUVv6_Alert_v3_t,      10, alertv6v3, kWhole,      kAlertPartsRows),
    FORM(kFlow,     3, 5, 0, 2, RUVv5_Flow_t,           0, flowv5,    kWhole,      kNothing),
    FORM(kFlow,     6, 6, 0, 0, RUVv6_Flow_v1_t,        0, flowv6v1,  kWhole,      kNothing),
    FORM(kFlow,     6, 6, 1, 1, RUVv6_Flow_v2_t,        5, flowv6v2,  kWhole,      kFlowPartsRows),
    FORM(kFlow,     6, 6, 2, 2, RUVv6_Flow_v3_t,        7, flowv6v3,  kWhole,      kFlowPartsRows),
    FORM(kSyslog,   3, 5, 0, 2, RUVv5_Syslog_t,         0, syslogv5,  kWhole,      kSyslogParts),
    FORM(kSyslog,   6, 6, 0, 2, RUVv6_Syslog_v1_t,      0, syslogv6,  kWhole,      kSyslogParts),
    FORM(kWinEvent, 3, 5, 0, 2, RUVv5_WinEvntLog_t,     0, winevntv5, kWinSlices,  kWindowsParts5),
    FORM(kWinEvent, 6, 6, 0, 2, RUVv6_WinEventLog_v1_t, 0, winevntv6, kWhole,      kWindowsText),
};
// clang-format on
static_assert(std::ranges::all_of(kForms, [](auto &form) { return form.size <= kBlockBytes; }));

// Position in kForms plus one for each type, version and sub-version; 0: no such body.
constexpr auto kIndex = [] {
    std::array<uint8_t, kDataTypes * kProtocolVersions * kSubversions> index{};
    for (size_t i = 0; i < std::size(kForms); ++i)
        for (int ver = kForms[i].first_ver; ver <= kForms[i].last_ver; ++ver)
            for (int sver = kForms[i].first_sver; sver <= kForms[i].last_sver; ++sver)
                index.at((kForms[i].type * kProtocolVersions + ver - 1) * kSubversions + sver) =
                    static_cast<uint8_t>(i + 1);
    return index;
}();

}  // namespace

const body_form *libruv_find_body(uint32_t type, int ver, int sver) {
    if (type >= kDataTypes || ver < 1 || ver > kProtocolVersions) return nullptr;
    // Kept: only Alert and Flow tell sub-versions apart, the others have one body whatever it is.
    if (type != kAlert && type != kFlow) sver = 0;
    if (ver < kProtocolVersions) sver = 0;
    if (sver < 0 || sver >= kSubversions) return nullptr;
    const int place =
        kIndex[(type * kProtocolVersions + static_cast<uint32_t>(ver) - 1) * kSubversions +
               static_cast<uint32_t>(sver)];
    return place == 0 ? nullptr : &kForms[place - 1];
}
