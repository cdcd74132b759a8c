// Collects what the framework logs through the general logger.
#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "lpc/logger.h"

/// While one exists, the general logger is its own; one at a time.
class LogCapture {
  public:
    using Line = std::pair<int, std::wstring>;

    LogCapture() {
        lines().clear();
        velmor_com::NQ::Services::LPCLogger::getLogger()->registerGeneralLogger(take);
    }
    ~LogCapture() {
        velmor_com::NQ::Services::LPCLogger::getLogger()->registerGeneralLogger(nullptr);
    }
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<Line> all() const {
        std::lock_guard hold(guard());
        return lines();
    }
    bool has(int level, const std::wstring &text) const {
        const auto seen = all();
        return std::find(seen.begin(), seen.end(), Line{level, text}) != seen.end();
    }

  private:
    static std::vector<Line> &lines() {
        static std::vector<Line> all;
        return all;
    }
    static std::mutex &guard() {
        static std::mutex lock;
        return lock;
    }
    static void take(int level, const wchar_t *message) {
        std::lock_guard hold(guard());
        lines().emplace_back(level, message);
    }
};

inline constexpr int kErrorLine = 0, kInfoLine = 1, kWarningLine = 2, kDetailLine = 4;
