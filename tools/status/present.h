// The forms that a survey is shown in, and the verdict that monitoring systems ask for.
#pragma once

#include <cstdint>
#include <string>

#include "tools/status/survey.h"

/// Monitoring status: also the tool's exit status.
enum verdict { kFine = 0, kWarning = 1, kCritical = 2, kUnknown = 3 };

/// Lag in bytes at and above which a verdict is given.
struct lag_limits {
    uint64_t warning;
    uint64_t critical;
};

/// The worst that a survey shows.
verdict judge(const survey &taken, const lag_limits &limits);

std::string present_screen(const survey &taken, const lag_limits &limits);
std::string present_json(const survey &taken, const lag_limits &limits);

/// Prometheus text exposition format.
std::string present_prometheus(const survey &taken);

/// The problems of the bookmark file, a line each, and a closing line. Paths whose file no longer
/// exists are named as orphans, which are no problem.
std::string present_verification(const survey &taken);
