#include "tests/lpc/loaded_runtime.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "lpc/dylib_manager.h"
#include "lpc/runtime.h"
#include "tests/lpc/temp_folder.h"

namespace velmor_com::NQ::LPC {

ArchiveFault archive_fault = ArchiveFault::kNone;

namespace {

class FaultyFactory : public SerializationFactory {
  public:
    void createOarchive(std::wstringstream &stream,
                        boost::archive::polymorphic_oarchive *&archive) override {
        fail();
        SerializationFactory::createOarchive(stream, archive);
    }
    void createIarchive(std::wstringstream &stream,
                        boost::archive::polymorphic_iarchive *&archive) override {
        fail();
        SerializationFactory::createIarchive(stream, archive);
    }

  private:
    static void fail() {
        if (archive_fault == ArchiveFault::kKnown)
            throw std::runtime_error("the archive's own words");
        if (archive_fault == ArchiveFault::kUnknown) throw 7;
    }
};

bool validate(const unsigned char *, unsigned long, unsigned char *, unsigned long *) {
    return true;
}
void nothing() {
}

// The process-wide manager can be initialised once only, so all tests share it.
class LoadedRuntime : public testing::Environment {
  public:
    void SetUp() override {
        setenv("LOOPBACK_AGENT_DIR", m_folder.path().c_str(), 1);
        LPCDylibManager::setUTMode(true);
        auto *callbacks = new VlrLpcCallbacks{validate, nothing, nothing};
        ISerializationFactory *factory = new FaultyFactory;
        ASSERT_EQ(initializeLPC(kOwnId, L"/tmp/unused", callbacks, factory), 0);
        // Unit-test mode leaves the runtime disabled; this process calls itself through it.
        void *library = dlopen("libvlrlpc.so", RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(library, nullptr);
        const auto enable = reinterpret_cast<StatusEntry>(dlsym(library, "enableLPCLib"));
        ASSERT_EQ(enable(), 0);
        dlclose(library);
    }
    void TearDown() override { deinitializeLPC(); }

  private:
    TempFolder m_folder;
};

const auto *const environment = testing::AddGlobalTestEnvironment(new LoadedRuntime);

}  // namespace
}  // namespace velmor_com::NQ::LPC
