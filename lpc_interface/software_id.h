// The identifier under which this product is known to the agent; also the name of the policy
// section that carries its global settings.
#pragma once

inline constexpr char kSoftwareId[] = "LOGRELAY1000";
inline constexpr wchar_t kSoftwareIdWide[] = L"LOGRELAY1000";
