#include "lpc/logger.h"

#include <iostream>
#include <mutex>

namespace velmor_com::NQ::Services {

namespace {

std::mutex instance_lock;

// The general logger's levels. The collector's sink reads these numbers by a table of its own.
enum { kErrorLevel = 0, kInfoLevel = 1, kWarningLevel = 2, kDetailLevel = 4 };

}  // namespace

std::atomic<LPCLogger *> LPCLogger::m_pIpcLogger{nullptr};

LPCLogger *LPCLogger::getLogger() {
    LPCLogger *logger = m_pIpcLogger.load(std::memory_order_acquire);
    if (logger) return logger;
    std::lock_guard guard(instance_lock);
    logger = m_pIpcLogger.load(std::memory_order_relaxed);
    if (!logger) {
        logger = new LPCLogger;
        m_pIpcLogger.store(logger, std::memory_order_release);
    }
    return logger;
}

void LPCLogger::releaseLogger() {
    std::lock_guard guard(instance_lock);
    delete m_pIpcLogger.exchange(nullptr, std::memory_order_acq_rel);
}

bool LPCLogger::registerGeneralLogger(GeneralLogger logger) {
    m_general.store(logger, std::memory_order_relaxed);
    return true;
}

bool LPCLogger::store(Kind kind, LogMethod method) {
    m_methods[kind].store(method, std::memory_order_relaxed);
    return true;
}

bool LPCLogger::registerLogInfoMethod(LogMethod method) {
    return store(kInfo, method);
}
bool LPCLogger::registerLogDetailMethod(LogMethod method) {
    return store(kDetail, method);
}
bool LPCLogger::registerLogWarningMethod(LogMethod method) {
    return store(kWarning, method);
}
bool LPCLogger::registerLogErrorMethod(LogMethod method) {
    return store(kError, method);
}
bool LPCLogger::registerLogDebugMethod(LogMethod method) {
    return store(kDebug, method);
}

void LPCLogger::log(Kind kind, int level, const wchar_t *module, const wchar_t *message) {
    if (GeneralLogger general = generalLogger()) {
        general(level, message);
    } else if (LogMethod to_method = method(kind)) {
        to_method(module, message);
    } else if (m_stdoutLogging.load(std::memory_order_relaxed)) {
        std::wcout << module << L":" << message << std::endl;
    }
}

void LPCLogger::logInfo(const wchar_t *module, const wchar_t *message) {
    log(kInfo, kInfoLevel, module, message);
}

void LPCLogger::logDetail(const wchar_t *module, const wchar_t *message) {
    log(kDetail, kDetailLevel, module, message);
}

void LPCLogger::logWarning(const wchar_t *module, const wchar_t *message) {
    log(kWarning, kWarningLevel, module, message);
}

void LPCLogger::logError(const wchar_t *module, const wchar_t *message) {
    log(kError, kErrorLevel, module, message);
}

// Kept: debug messages go nowhere, also with a method registered for them; sinks of the agent's
// other processes rely on never seeing them.
void LPCLogger::logDebug(const wchar_t *, const wchar_t *) {
}

}  // namespace velmor_com::NQ::Services
