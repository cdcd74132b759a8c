#include "lpc/runtime.h"

#include <exception>
#include <mutex>
#include <thread>

#include "lpc/cross_objects.h"
#include "lpc/dylib_manager.h"
#include "lpc/factory.h"
#include "lpc/logger.h"
#include "lpc/wide_text.h"

namespace velmor_com::NQ::LPC {

namespace {

// The thread on which the runtime is replaced at its own request, one at a time.
struct Reloader {
    std::mutex guard;
    std::thread thread;
    bool closed = true;  ///< no request is taken any more
    bool busy = false;
};

// Never destroyed: a process may end while the thread still runs.
Reloader &reloader = *new Reloader;

void log_failure(const char *why) {
    Services::LPCLogger::getLogger()->logError(L"LPCDLLManager", widen_text(why).c_str());
}

void reload_now() {
    try {
        unloadLPCRuntime();
        if (loadNewLPCRuntime() == 0) LPCDylibManager::instance()->announceRuntime();
    } catch (const std::exception &error) {
        log_failure(error.what());
    }
    std::lock_guard guard(reloader.guard);
    reloader.busy = false;
}

// On a thread of the runtime. A request during a reload is met by that reload; one for which no
// thread can be made is lost, and the runtime may ask again.
void request_reload() try {
    std::lock_guard guard(reloader.guard);
    if (reloader.closed || reloader.busy) return;
    if (reloader.thread.joinable()) reloader.thread.join();
    reloader.thread = std::thread(reload_now);
    reloader.busy = true;
} catch (const std::exception &error) {
    log_failure(error.what());
}

void set_reloading(bool allowed) {
    std::thread last;
    {
        std::lock_guard guard(reloader.guard);
        reloader.closed = !allowed;
        last.swap(reloader.thread);
    }
    if (last.joinable()) last.join();
}

}  // namespace

int initializeLPC(const std::string &processId, const std::wstring &tmpDir,
                  VlrLpcCallbacks *&callbacks, ISerializationFactory *&factory) try {
    ServicesCrossObjectFactory::setReload(request_reload);
    LPCFactory::instance()->configure(processId);
    const int result =
        LPCDylibManager::instance()->initialize(processId, tmpDir, callbacks, factory);
    if (result == 0) set_reloading(true);
    return result;
} catch (const std::exception &error) {
    log_failure(error.what());
    return -1;
}

void deinitializeLPC() {
    set_reloading(false);
    LPCDylibManager::instance()->deinitialize();
}

void unloadLPCRuntime() {
    LPCDylibManager::instance()->unloadVlrLpcDll(true);
}

int loadNewLPCRuntime() {
    return LPCDylibManager::instance()->loadVlrLpcDll(true);
}

}  // namespace velmor_com::NQ::LPC
