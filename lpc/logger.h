// The framework's log switchboard. Messages of the framework and of the runtime go through it to
// whatever sink the process has registered.
#pragma once

#include <atomic>

namespace velmor_com::NQ::Services {

/// Takes a level (error 0, info 1, warning 2, detail 4) and a message.
using GeneralLogger = void (*)(int level, const wchar_t *message);
/// Takes the name of the module that speaks and its message.
using LogMethod = void (*)(const wchar_t *module, const wchar_t *message);

/// One per process. Every operation may be called on any thread.
class LPCLogger {
  public:
    /// Methods in the order in which the runtime's logger numbers them.
    enum Kind { kInfo, kDetail, kWarning, kError, kDebug, kKinds };

    /// The instance, made on first use.
    static LPCLogger *getLogger();
    /// Deletes the instance with all that is registered; no other thread may be logging.
    static void releaseLogger();

    void enableStdoutLogging() { m_stdoutLogging.store(true, std::memory_order_relaxed); }

    /// Each stores the sink (null: none) and returns true.
    bool registerGeneralLogger(GeneralLogger logger);
    bool registerLogInfoMethod(LogMethod method);
    bool registerLogDetailMethod(LogMethod method);
    bool registerLogWarningMethod(LogMethod method);
    bool registerLogErrorMethod(LogMethod method);
    bool registerLogDebugMethod(LogMethod method);

    /// To the general logger, else to the method of the kind, else to standard output when that is
    /// enabled, else nowhere.
    void logInfo(const wchar_t *module, const wchar_t *message);
    void logDetail(const wchar_t *module, const wchar_t *message);
    void logWarning(const wchar_t *module, const wchar_t *message);
    void logError(const wchar_t *module, const wchar_t *message);
    /// Does nothing.
    void logDebug(const wchar_t *module, const wchar_t *message);

    /// What is registered, for the runtime's own logger; null when nothing is.
    GeneralLogger generalLogger() const { return m_general.load(std::memory_order_relaxed); }
    LogMethod method(Kind kind) const { return m_methods[kind].load(std::memory_order_relaxed); }

  private:
    LPCLogger() = default;
    bool store(Kind kind, LogMethod method);
    void log(Kind kind, int level, const wchar_t *module, const wchar_t *message);

    static std::atomic<LPCLogger *> m_pIpcLogger;

    std::atomic<bool> m_stdoutLogging{false};
    std::atomic<LogMethod> m_methods[kKinds] = {};
    std::atomic<GeneralLogger> m_general{nullptr};
};

}  // namespace velmor_com::NQ::Services
