// The seven entry points of libvlrlpc.so, and the faults that it plays.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>

#include "tools/loopback_agent/location.h"
#include "tools/loopback_agent/runtime.h"

namespace loopback {

namespace {

std::unique_ptr<Runtime> runtime;
std::atomic<unsigned> last_async_id{0};

// A library whose start-up takes its time, as one on a slow disk does.
struct SlowStart {
    SlowStart() {
        std::string seconds;
        if (has_fault("slow-load", &seconds))
            sleep(static_cast<unsigned>(strtoul(seconds.c_str(), nullptr, 10)));
    }
};
const SlowStart slow_start;

// The agent's own messages have nowhere to go here; that they could is what counts.
class Logger : public IVlrLpcLogger {
  public:
    void setMethod(unsigned, void (*)(const wchar_t *, const wchar_t *)) override {}
    void setGeneral(void (*general)(int, const wchar_t *)) override { m_general.store(general); }
    void say(const wchar_t *message) {
        if (const auto general = m_general.load()) general(1, message);
    }

  private:
    std::atomic<void (*)(int, const wchar_t *)> m_general{nullptr};
};
Logger logger;

}  // namespace

}  // namespace loopback

using namespace loopback;

#define ENTRY_POINT extern "C" __attribute__((visibility("default")))

ENTRY_POINT int initializeLPCLib(const char *processId, const wchar_t *, ISerializationFactory *,
                                 VlrLpcCallbacks *callbacks,
                                 ServicesCrossObjectFactory *crossObjects) {
    if (runtime || has_fault("initialize")) return 1;
    runtime = std::make_unique<Runtime>(own_folder(), processId, callbacks, crossObjects);
    return 0;
}

ENTRY_POINT int deinitializeLPCLib() {
    runtime.reset();
    return 0;
}

ENTRY_POINT IVlrLpcFactory *getVlrLpcFactory() {
    return runtime.get();
}

ENTRY_POINT unsigned createAsyncResultId() {
    return ++last_async_id;
}

ENTRY_POINT int enableLPCLib() {
    if (!runtime || has_fault("enable") || !runtime->listen()) return 1;
    logger.say(L"Loopback agent: listening");
    return 0;
}

#ifndef LOOPBACK_MISSING_SYMBOL
ENTRY_POINT int disableLPCLib() {
    if (runtime) runtime->disable();
    return 0;
}
#endif

ENTRY_POINT IVlrLpcLogger *getVlrLpcLogger() {
    return &logger;
}
