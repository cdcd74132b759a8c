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
constexpr body_part kFlowPartsRows[] = {kRows};
constexpr body_part kSyslogParts[] = {kText};
constexpr body_part kWindowsParts5[] = {kRow1, kRow2, kText, kStrings};
constexpr body_part kWindowsText[] = {
    kAddressText, kSeparator, kRow0,      kRecordNumber, kRow1,  kNumbers,       kRow2,
    kSeparator,   kRow3,      kSeparator, kRow4,         kCount, kFramedStrings, kText};

// From version 3 on a zero byte stands behind the version of an Alert.
constexpr body_slice kAlertSplit[] = {{0, 1}, {kZeroByte, 1}, {1, 127}};
constexpr body_slice kWindowsUnpadded[] = {{0, 2}, {4, 60}};

// Order of the columns: type, versions, zero-based sub-versions, size, rows, fill, slices, parts.
constexpr body_form kForms[] = {
    {kAlert, 1, 1, 0, 2, sizeof(RUVv5_Alert_t), 0, libruv_fill_alertv5, {}, kAlertParts1},
    {kAlert, 2, 2, 0, 2, sizeof(RUVv5_Alert_t), 0, libruv_fill_alertv5, {}, kAlertParts2},
    {kAlert, 3, 3, 0, 2, sizeof(RUVv5_Alert_t), 0, libruv_fill_alertv5, kAlertSplit, kAlertParts2},
    {kAlert, 4, 5, 0, 2, sizeof(RUVv5_Alert_t), 0, libruv_fill_alertv5, kAlertSplit, kAlertParts4},
    {kAlert, 6, 6, 0, 0, sizeof(RUVv6_Alert_v1_t), 0, libruv_fill_alertv6v1, {}, kAlertParts4},
    {kAlert, 6, 6, 1, 1, sizeof(RUVv6_Alert_v2_t), 10, libruv_fill_alertv6v2, {}, kAlertPartsRows},
    {kAlert, 6, 6, 2, 2, sizeof(RUVv6_Alert_v3_t), 10, libruv_fill_alertv6v3, {}, kAlertPartsRows},
    {kFlow, 3, 5, 0, 2, sizeof(RUVv5_Flow_t), 0, libruv_fill_flowv5, {}, {}},
    {kFlow, 6, 6, 0, 0, sizeof(RUVv6_Flow_v1_t), 0, libruv_fill_flowv6v1, {}, {}},
    {kFlow, 6, 6, 1, 1, sizeof(RUVv6_Flow_v2_t), 5, libruv_fill_flowv6v2, {}, kFlowPartsRows},
    {kFlow, 6, 6, 2, 2, sizeof(RUVv6_Flow_v3_t), 7, libruv_fill_flowv6v3, {}, kFlowPartsRows},
    {kSyslog, 3, 5, 0, 2, sizeof(RUVv5_Syslog_t), 0, libruv_fill_syslogv5, {}, kSyslogParts},
    {kSyslog, 6, 6, 0, 2, sizeof(RUVv6_Syslog_v1_t), 0, libruv_fill_syslogv6, {}, kSyslogParts},
    {kWinEvent, 3, 5, 0, 2, sizeof(RUVv5_WinEvntLog_t), 0, libruv_fill_winevntv5, kWindowsUnpadded,
     kWindowsParts5},
    {kWinEvent,
     6,
     6,
     0,
     2,
     sizeof(RUVv6_WinEventLog_v1_t),
     0,
     libruv_fill_winevntv6,
     {},
     kWindowsText},
};
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
