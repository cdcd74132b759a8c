// Finding, loading, initialising and unloading the runtime: every result and message.
#include "lpc/dylib_manager.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <utility>

#include "lpc/wide_text.h"
#include "tests/lpc/log_capture.h"
#include "tests/lpc/temp_folder.h"

namespace velmor_com::NQ::LPC {
namespace {

constexpr char kId[] = "LOGRELAY1000:4711:0001";

int uninstalled_calls, installed_calls;

bool validate(const unsigned char *, unsigned long, unsigned char *, unsigned long *) {
    return true;
}
void installed() {
    installed_calls++;
}
void uninstalled() {
    uninstalled_calls++;
}

// A serialization factory that tells when it is deleted.
class WatchedFactory : public SerializationFactory {
  public:
    explicit WatchedFactory(int *deleted) : m_deleted(deleted) {}
    ~WatchedFactory() override { ++*m_deleted; }

  private:
    int *const m_deleted;
};

// One that cannot take its mode.
class RefusingFactory : public WatchedFactory {
  public:
    using WatchedFactory::WatchedFactory;
    void setArchiveMode(unsigned short) override { throw std::runtime_error("no such mode"); }
};

class Loader : public testing::Test {
  protected:
    void SetUp() override {
        installed_calls = uninstalled_calls = 0;
        manager = std::make_unique<LPCDylibManager>(config());
    }
    void TearDown() override {
        manager.reset();
        delete callbacks;
        delete factory;
    }

    std::string config() const { return folder.path("config.xml"); }
    std::wstring library() const { return widen_text(folder.path("libvlrlpc.so")); }

    // An agent's folder, with a library of the loopback agent or any other file.
    void install(const std::string &from = LOOPBACK_FOLDER "/libvlrlpc.so") {
        folder.write("config.xml", "<SharedLibLocation>" + folder.path() + "</SharedLibLocation>");
        if (!from.empty()) std::filesystem::create_symlink(from, folder.path("libvlrlpc.so"));
    }

    int initialize(const std::string &id = kId) {
        return manager->initialize(id, L"/tmp/unused", callbacks, factory);
    }

    void expect_caller_owns() {
        EXPECT_NE(callbacks, nullptr);
        EXPECT_NE(factory, nullptr);
        EXPECT_EQ(factory_deleted, 0);
    }

    TempFolder folder;
    LogCapture log;
    int factory_deleted = 0;
    VlrLpcCallbacks *callbacks = new VlrLpcCallbacks{validate, installed, uninstalled};
    ISerializationFactory *factory = new WatchedFactory(&factory_deleted);
    std::unique_ptr<LPCDylibManager> manager;
};

TEST_F(Loader, WithoutAnAgentItIsNotInstalled) {
    EXPECT_EQ(initialize(), 1);
    EXPECT_EQ(
        log.all(),
        (std::vector<LogCapture::Line>{{kErrorLine, L"Unable to find LPC runtime location"}}));
    EXPECT_EQ(callbacks, nullptr);
    EXPECT_EQ(factory, nullptr);
    EXPECT_EQ(manager->getLPCRepository(), nullptr);
    EXPECT_EQ(manager->getNotificationService(), nullptr);
    EXPECT_EQ(manager->getObjectConnector("p", "s"), nullptr);
    EXPECT_EQ(manager->getObjectConnector(1, "s"), nullptr);
    EXPECT_EQ(manager->getObjectConnector("p", "s", "m"), nullptr);
    EXPECT_EQ(manager->createAsyncResultConnector(1), nullptr);
    EXPECT_EQ(manager->createAsyncResultId(), 0u);
    EXPECT_EQ(manager->getSerializationFactory(), nullptr);
    manager.reset();
    EXPECT_EQ(factory_deleted, 1);
}

TEST_F(Loader, AfterNotInstalledItMayBeTriedAgain) {
    EXPECT_EQ(initialize(), 1);
    install();
    callbacks = new VlrLpcCallbacks{validate, installed, uninstalled};
    EXPECT_EQ(initialize(), 0);
    manager->deinitialize();
}

TEST_F(Loader, LoadsAndHandsOutObjects) {
    install();
    ISerializationFactory *own = factory;
    ASSERT_EQ(initialize(), 0);
    EXPECT_EQ(callbacks, nullptr);
    EXPECT_EQ(factory, nullptr);
    EXPECT_TRUE(log.has(kInfoLine, L"Successfully loaded LPC runtime " + library()));
    EXPECT_TRUE(log.has(kInfoLine, L"Loopback agent: listening"));
    EXPECT_TRUE(std::filesystem::exists(folder.path(std::string(kId) + ".sock")));
    EXPECT_EQ(manager->getSerializationFactory(), own);
    EXPECT_EQ(own->getArchiveMode(), 1);
    EXPECT_EQ(own->getVersion(), SerializationFactory::kVersion);

    ILPCRepository *repository = manager->getLPCRepository();
    ASSERT_NE(repository, nullptr);
    EXPECT_EQ(repository->findAdaptor("nobody"), nullptr);
    manager->releaseLPCRepository(repository);
    EXPECT_EQ(repository, nullptr);
    manager->releaseLPCRepository(repository);
    INotificationService *notifications = manager->getNotificationService();
    EXPECT_NE(notifications, nullptr);
    manager->releaseNotificationService(notifications);
    for (IObjectConnector *connector :
         {manager->getObjectConnector("p", "s"), manager->getObjectConnector("p", "s", "m")}) {
        ASSERT_NE(connector, nullptr);
        manager->destroyConnector(connector);
    }
    // What the runtime does not know or gives as something else comes as null.
    EXPECT_EQ(manager->getObjectConnector(7, "s"), nullptr);
    EXPECT_EQ(manager->createAsyncResultConnector(7), nullptr);
    EXPECT_NE(manager->createAsyncResultId(), 0u);

    manager->deinitialize();
    EXPECT_TRUE(log.has(kInfoLine, L"Successfully released LPC runtime " + library()));
    EXPECT_EQ(uninstalled_calls, 0);
    EXPECT_EQ(manager->getLPCRepository(), nullptr);
    EXPECT_EQ(manager->createAsyncResultId(), 0u);
    EXPECT_FALSE(std::filesystem::exists(folder.path(std::string(kId) + ".sock")));
    const size_t lines = log.all().size();
    manager->deinitialize();
    EXPECT_EQ(log.all().size(), lines);
}

TEST_F(Loader, ASecondInitialisationIsRefused) {
    install();
    ASSERT_EQ(initialize(), 0);
    callbacks = new VlrLpcCallbacks{validate, installed, uninstalled};
    EXPECT_LT(initialize(), 0);
    EXPECT_TRUE(log.has(kErrorLine, L"Multiple initialization attempt"));
    EXPECT_NE(callbacks, nullptr);
    manager->deinitialize();
}

TEST_F(Loader, UnloadsWithNoticeAndLoadsAgain) {
    install();
    ASSERT_EQ(initialize(), 0);
    EXPECT_EQ(manager->loadVlrLpcDll(true), -1);
    EXPECT_TRUE(log.has(kErrorLine, L"Invalid method call"));
    manager->unloadVlrLpcDll(true);
    EXPECT_EQ(uninstalled_calls, 1);
    manager->announceRuntime();
    EXPECT_EQ(installed_calls, 0);
    ASSERT_EQ(manager->loadVlrLpcDll(true), 0);
    manager->announceRuntime();
    EXPECT_EQ(installed_calls, 1);
    EXPECT_TRUE(std::filesystem::exists(folder.path(std::string(kId) + ".sock")));
    manager->unloadVlrLpcDll(false);
    EXPECT_EQ(uninstalled_calls, 1);
}

TEST_F(Loader, AReloadMissesARuntimeThatIsGone) {
    install();
    ASSERT_EQ(initialize(), 0);
    manager->unloadVlrLpcDll(false);
    std::filesystem::remove(config());
    EXPECT_EQ(manager->loadVlrLpcDll(true), -1);
    EXPECT_TRUE(
        log.has(kErrorLine, L"Unable to pickup new LPC runtime, please check runtime location"));
}

TEST_F(Loader, ArgumentsAreChecked) {
    EXPECT_LT(initialize(""), 0);
    EXPECT_LT(manager->initialize(kId, L"", callbacks, factory), 0);
    VlrLpcCallbacks *none = nullptr;
    EXPECT_LT(manager->initialize(kId, L"/tmp/x", none, factory), 0);
    EXPECT_EQ(log.all(), (std::vector<LogCapture::Line>(3, {kErrorLine, L"Invalid argument"})));
    for (VlrLpcCallbacks incomplete : {VlrLpcCallbacks{nullptr, installed, uninstalled},
                                       VlrLpcCallbacks{validate, nullptr, uninstalled},
                                       VlrLpcCallbacks{validate, installed, nullptr}}) {
        VlrLpcCallbacks *block = &incomplete;
        EXPECT_LT(manager->initialize(kId, L"/tmp/x", block, factory), 0);
        EXPECT_EQ(log.all().back(), (LogCapture::Line{kErrorLine, L"Invalid callbacks"}));
        EXPECT_EQ(block, &incomplete);
    }
    expect_caller_owns();
}

TEST_F(Loader, OnlySomeIdentifiersAreTaken) {
    for (const char *id : {"a:b", "LOGRELAY1000:4:0001", "LOGRELAY1000:DEFAULT:77"}) {
        EXPECT_LT(initialize(id), 0) << id;
        EXPECT_EQ(log.all().back(),
                  (LogCapture::Line{kErrorLine, L"Invalid LPC process identifier"}));
    }
    // A plain name is completed; one of 45 characters leaves no room for that.
    EXPECT_LT(initialize(std::string(45, 'n')), 0);
    EXPECT_TRUE(log.has(kErrorLine, L"Failed to generate LPC process ID"));
    expect_caller_owns();
    EXPECT_EQ(initialize("plain"), 1);
}

TEST_F(Loader, TheAgentItselfCannotDoWithoutItsRuntime) {
    EXPECT_EQ(initialize("OZUAGENT3700LYNX"), -1);
    EXPECT_TRUE(
        log.has(kErrorLine, L"Unable to load LPC runtime /opt/Velmor/cmx/lib/libvlrlpc.so"));
    expect_caller_owns();
    EXPECT_EQ(initialize("HUBUPD__3000"), 1);  // the agent's updater can
}

TEST_F(Loader, APathWithoutALibraryIsNotInstalled) {
    install("");
    EXPECT_EQ(initialize(), 1);
    EXPECT_TRUE(log.has(kErrorLine, L"Unable to load LPC runtime " + library()));
}

TEST_F(Loader, AFileThatCannotBeLoadedIsAFailure) {
    install(folder.write("text", "no library"));
    EXPECT_EQ(initialize(), -1);
    EXPECT_TRUE(log.has(kErrorLine, L"Unable to load LPC runtime " + library()));
    expect_caller_owns();
}

// The link is there, though what it names is not.
TEST_F(Loader, ALinkToNothingIsAFailure) {
    install(folder.path("nowhere"));
    EXPECT_EQ(initialize(), -1);
    EXPECT_TRUE(log.has(kErrorLine, L"Unable to load LPC runtime " + library()));
}

TEST_F(Loader, AMissingEntryPointIsAFailureThatCanBeMended) {
    install(LOOPBACK_FOLDER "/faulty/libvlrlpc.so");
    EXPECT_EQ(initialize(), -1);
    EXPECT_TRUE(
        log.has(kErrorLine, L"Unable to retrieve exported function address from LPC runtime"));
    EXPECT_FALSE(log.has(kInfoLine, L"Successfully loaded LPC runtime " + library()));
    expect_caller_owns();
    std::filesystem::remove(folder.path("libvlrlpc.so"));
    install();
    EXPECT_EQ(initialize(), 0);  // the faulty library is not held any more
    manager->deinitialize();
}

TEST_F(Loader, EachOfTheSevenEntryPointsMustBeThere) {
    for (const char *symbol :
         {"initializeLPCLib", "deinitializeLPCLib", "getVlrLpcFactory", "createAsyncResultId",
          "enableLPCLib", "disableLPCLib", "getVlrLpcLogger"}) {
        std::filesystem::remove(folder.path("libvlrlpc.so"));
        install(std::string(PARTIAL_FOLDER "/without_") + symbol + ".so");
        EXPECT_EQ(initialize(), -1) << symbol;
        EXPECT_EQ(
            log.all().back(),
            (LogCapture::Line{kErrorLine,
                              L"Unable to retrieve exported function address from LPC runtime"}));
        expect_caller_owns();
    }
    EXPECT_EQ(log.all().size(), 7u);
}

TEST_F(Loader, ARuntimeWithoutAFactoryGivesIdentifiersOnly) {
    install(RECORDING_RUNTIME);
    folder.write("no factory", "");
    ASSERT_EQ(initialize(), 0);
    EXPECT_EQ(manager->getLPCRepository(), nullptr);
    EXPECT_EQ(manager->getObjectConnector("p", "s"), nullptr);
    EXPECT_EQ(manager->createAsyncResultId(), 1u);
    EXPECT_NE(manager->getSerializationFactory(), nullptr);
    manager->deinitialize();
    EXPECT_EQ(manager->createAsyncResultId(), 0u);
}

TEST_F(Loader, ARuntimeThatThrowsIsUnloaded) {
    install(RECORDING_RUNTIME);
    folder.write("throw", "");
    EXPECT_EQ(initialize(), -1);
    EXPECT_EQ(log.all().back(), (LogCapture::Line{kErrorLine, L"the runtime's own words"}));
    expect_caller_owns();
    std::filesystem::remove(folder.path("throw"));
    EXPECT_EQ(initialize(), 0);
    manager->deinitialize();
}

TEST_F(Loader, ARuntimeThatFailsIsUnloaded) {
    install();
    for (const char *fault : {"initialize", "enable"}) {
        folder.write("faults", std::string(fault) + "\n");
        EXPECT_EQ(initialize(), -1) << fault;
        expect_caller_owns();
        EXPECT_EQ(manager->getLPCRepository(), nullptr);
    }
    folder.write("faults", "");
    EXPECT_EQ(initialize(), 0);
    manager->deinitialize();
}

TEST_F(Loader, AnExceptionIsAFailureThatCanBeMended) {
    install();
    delete std::exchange(factory, new RefusingFactory(&factory_deleted));
    factory_deleted = 0;
    EXPECT_EQ(initialize(), -1);
    EXPECT_EQ(log.all(), (std::vector<LogCapture::Line>{{kErrorLine, L"no such mode"}}));
    expect_caller_owns();
    delete std::exchange(factory, new WatchedFactory(&factory_deleted));
    EXPECT_EQ(initialize(), 0);
    manager->deinitialize();
}

TEST_F(Loader, UnitTestModeLooksTheLibraryUpByItsName) {
    LPCDylibManager::setUTMode(true);
    manager = std::make_unique<LPCDylibManager>(config());
    LPCDylibManager::setUTMode(false);
    EXPECT_EQ(initialize(), 0);  // found by the run path of this program
    EXPECT_TRUE(log.has(kInfoLine, L"Successfully loaded LPC runtime libvlrlpc.so"));
    EXPECT_FALSE(log.has(kInfoLine, L"Loopback agent: listening"));
    manager->deinitialize();
}

TEST_F(Loader, ADefaultSerializationFactoryIsMade) {
    install();
    ISerializationFactory *none = nullptr;
    ASSERT_EQ(manager->initialize(kId, L"/tmp/x", callbacks, none), 0);
    ASSERT_NE(manager->getSerializationFactory(), nullptr);
    EXPECT_EQ(manager->getSerializationFactory()->getArchiveMode(), 1);
    manager->deinitialize();
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
