// The runtime asks to be replaced: also while no thread can be made for it.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include "lpc/cross_objects.h"
#include "lpc/dylib_manager.h"
#include "lpc/runtime.h"
#include "tests/lpc/log_capture.h"
#include "tests/lpc/temp_folder.h"

namespace {

std::atomic<bool> no_threads{false};

}  // namespace

// Takes the place of the C library's.
extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                              void *(*start)(void *), void *argument) {
    using Create = int (*)(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
    static const auto next = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    return no_threads ? EAGAIN : next(thread, attributes, start, argument);
}

namespace velmor_com::NQ::LPC {
namespace {

std::atomic<int> installed_calls, uninstalled_calls;

bool validate(const unsigned char *, unsigned long, unsigned char *, unsigned long *) {
    return true;
}
void installed() {
    installed_calls++;
}
void uninstalled() {
    uninstalled_calls++;
}

bool eventually(const std::function<bool()> &condition) {
    for (int i = 0; i < 3000 && !condition(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return condition();
}

long errors(const LogCapture &log) {
    const auto lines = log.all();
    return std::count_if(lines.begin(), lines.end(),
                         [](const LogCapture::Line &line) { return line.first == kErrorLine; });
}

void ask_for_reload() {
    ServicesCrossObjectFactory *const factory = ServicesCrossObjectFactory::instance();
    IVlrLpcServicesObject *object =
        factory->createObject(ServicesCrossObjectFactory::kRuntimeControl);
    auto *control = dynamic_cast<IVlrLpcRuntimeControl *>(object);
    ASSERT_NE(control, nullptr);
    EXPECT_NO_THROW(control->reload());
    factory->destroyObject(object);
}

TEST(Reload, ARequestWithoutAThreadIsLoggedAndTheNextOneServed) {
    const TempFolder folder;
    LogCapture log;
    setenv("LOOPBACK_AGENT_DIR", folder.path().c_str(), 1);
    LPCDylibManager::setUTMode(true);
    auto *callbacks = new VlrLpcCallbacks{validate, installed, uninstalled};
    ISerializationFactory *factory = nullptr;
    ASSERT_EQ(initializeLPC("LOGRELAY1000:4711:0001", L"/tmp/unused", callbacks, factory), 0);
    EXPECT_EQ(errors(log), 0);

    no_threads = true;
    ask_for_reload();
    no_threads = false;
    EXPECT_EQ(errors(log), 1);
    EXPECT_EQ(uninstalled_calls, 0);

    ask_for_reload();
    EXPECT_TRUE(eventually([] { return installed_calls == 1; }));
    EXPECT_EQ(uninstalled_calls, 1);

    deinitializeLPC();
    ask_for_reload();  // nobody is there to serve it
    EXPECT_EQ(installed_calls, 1);
    EXPECT_EQ(uninstalled_calls, 1);
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
