#include "lpc/dylib_manager.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <chrono>
#include <new>

#include "lpc/cross_objects.h"
#include "lpc/logger.h"
#include "lpc/process_id.h"
#include "lpc/wide_text.h"

namespace velmor_com::NQ::LPC {

namespace {

using Services::LPCLogger;

constexpr wchar_t kModule[] = L"LPCDLLManager";
constexpr char kRuntimeLibrary[] = "libvlrlpc.so";
constexpr char kAgentLibraryFolder[] = "/opt/Velmor/cmx/lib/";
constexpr char kUpdaterPrefix[] = "HUBUPD__3000";
constexpr unsigned short kArchiveMode = 1;
// How long unloading waits for objects that are out. Only a runtime whose calls hang uses it up.
constexpr std::chrono::seconds kLoanSeconds{10};

std::atomic<bool> unit_test_mode{false};

void log_error(const std::wstring &message) {
    LPCLogger::getLogger()->logError(kModule, message.c_str());
}

int fail(const std::wstring &message) {
    log_error(message);
    return -1;
}

// Runs a step of loading and returns its result. What it throws, from the runtime too, is logged
// and gone before the library may be closed.
template <class Step>
int guarded(Step step) {
    try {
        return step();
    } catch (const std::exception &error) {
        log_error(widen_text(error.what()));
    } catch (...) {
        log_error(L"Unexpected exception");
    }
    return -1;
}

void destroy(IVlrLpcFactory *factory, IVlrLpcObject *object) {
    guarded([&] {
        factory->destroyObject(object);
        return 0;
    });
}

// Lets the runtime write through the sinks that this process has registered.
void connect_logger(IVlrLpcLogger *runtime) {
    const LPCLogger *own = LPCLogger::getLogger();
    for (unsigned kind = 0; kind < LPCLogger::kKinds; kind++) {
        if (const auto method = own->method(static_cast<LPCLogger::Kind>(kind)))
            runtime->setMethod(kind, method);
    }
    if (const auto general = own->generalLogger()) runtime->setGeneral(general);
}

}  // namespace

LPCDylibManager *LPCDylibManager::instance() {
    static LPCDylibManager manager;
    return &manager;
}

void LPCDylibManager::setUTMode(bool on) {
    unit_test_mode.store(on);
}

LPCDylibManager::LPCDylibManager(std::string agentConfigFile)
    : m_unitTestingOnly(unit_test_mode.load()), m_agentConfigFile(std::move(agentConfigFile)) {
}

LPCDylibManager::~LPCDylibManager() {
    // A runtime that was never unloaded may still use both until the process is gone.
    if (!m_vlrLPCDLLHandle) return;
    static_cast<void>(m_pserializationFactory.release());
    static_cast<void>(m_keptCallbacks.release());
}

int LPCDylibManager::initialize(const std::string &processId, const std::wstring &tmpDir,
                                VlrLpcCallbacks *&callbacks, ISerializationFactory *&factory) {
    if (!m_processIdentifier.empty()) return fail(L"Multiple initialization attempt");
    if (processId.empty() || tmpDir.empty() || !callbacks) return fail(L"Invalid argument");
    if (!callbacks->validationCallback_ || !callbacks->vlrlpcInstalledCallBack_ ||
        !callbacks->vlrlpcUnInstalledCallBack_)
        return fail(L"Invalid callbacks");

    int result = guarded([&] {
        if (!chooseIdentifier(processId)) return -1;
        m_tmpDirName = tmpDir;
        m_pserializationFactory.reset(factory ? factory : new (std::nothrow) SerializationFactory);
        if (!m_pserializationFactory) return -1;
        m_pserializationFactory->setArchiveMode(kArchiveMode);
        m_pcallbacks = callbacks;
        return loadVlrLpcDll(false);
    });
    // The agent cannot run without its own runtime.
    if (result == 1 && getLPCIdType(processId) == kAgentId) result = -1;
    if (result != 0) m_processIdentifier.clear();
    if (result == -1) {
        m_pcallbacks = nullptr;
        if (m_pserializationFactory.get() == factory)
            static_cast<void>(m_pserializationFactory.release());
        return -1;
    }
    m_keptCallbacks.reset(callbacks);
    callbacks = nullptr;
    factory = nullptr;
    return result;
}

bool LPCDylibManager::chooseIdentifier(const std::string &processId) {
    switch (getLPCIdType(processId)) {
        case kAgentId:
        case kPlainNameId:
            if (generateLPCProcessUID(processId, "DEFAULT", m_processIdentifier)) return true;
            log_error(L"Failed to generate LPC process ID");
            return false;
        case kTaggedId:
            m_processIdentifier = processId;
            return true;
        default:
            log_error(L"Invalid LPC process identifier");
            return false;
    }
}

bool LPCDylibManager::readLPCRuntimeLocation() {
    if (m_unitTestingOnly) {
        m_narrowLibPath = kRuntimeLibrary;
    } else if (m_processIdentifier.starts_with(kAgentPrefix) ||
               m_processIdentifier.starts_with(kUpdaterPrefix)) {
        m_narrowLibPath = std::string(kAgentLibraryFolder) + kRuntimeLibrary;
    } else {
        std::string folder;
        if (!read_shared_lib_location(m_agentConfigFile, &folder)) {
            log_error(L"Unable to find LPC runtime location");
            return false;
        }
        m_narrowLibPath = folder + "/" + kRuntimeLibrary;
    }
    m_libPath = widen_text(m_narrowLibPath);
    return true;
}

int LPCDylibManager::loadVlrLpcDll(bool reload) {
    std::lock_guard loading(m_loading);
    if (m_vlrLPCDLLHandle) return fail(L"Invalid method call");
    const int result = guarded([&] { return openLibrary(reload); });
    if (result != 0 && m_vlrLPCDLLHandle) closeLibrary();
    return result;
}

int LPCDylibManager::openLibrary(bool reload) {
    if (!readLPCRuntimeLocation()) {
        if (!reload) return 1;
        return fail(L"Unable to pickup new LPC runtime, please check runtime location");
    }
    m_vlrLPCDLLHandle = dlopen(m_narrowLibPath.c_str(), RTLD_NOW);
    if (!m_vlrLPCDLLHandle) {
        dlerror();  // takes the pending error away; the path says enough
        log_error(L"Unable to load LPC runtime " + m_libPath);
        struct stat status;
        return lstat(m_narrowLibPath.c_str(), &status) != 0 ? 1 : -1;
    }
    return startRuntime();
}

int LPCDylibManager::startRuntime() {
    if (!findEntryPoints())
        return fail(L"Unable to retrieve exported function address from LPC runtime");
    LPCLogger::getLogger()->logInfo(kModule,
                                    (L"Successfully loaded LPC runtime " + m_libPath).c_str());
    const auto get_logger =
        reinterpret_cast<GetVlrLpcLogger>(dlsym(m_vlrLPCDLLHandle, "getVlrLpcLogger"));
    if (IVlrLpcLogger *logger = get_logger()) connect_logger(logger);

    if (m_fptrInitializeLPCLib(m_processIdentifier.c_str(), m_tmpDirName.c_str(),
                               m_pserializationFactory.get(), m_pcallbacks,
                               ServicesCrossObjectFactory::instance()) != 0)
        return -1;
    if (!m_unitTestingOnly && m_fptrEnableLPCLib() != 0) {
        m_fptrDeinitializeLPCLib();
        return -1;
    }
    // Asked before the lock is taken, which the runtime could come for on this thread.
    IVlrLpcFactory *const factory = m_fptrGetVlrLpcFactory();
    std::lock_guard guard(m_guard);
    m_pvlrLpcfactory = factory;
    m_isVlrLpcAvailable.store(true, std::memory_order_relaxed);
    return 0;
}

bool LPCDylibManager::findEntryPoints() {
    bool complete = true;
    const auto find = [&](auto &entry, const char *name) {
        void *address = dlsym(m_vlrLPCDLLHandle, name);
        complete = complete && address;
        entry = reinterpret_cast<std::remove_reference_t<decltype(entry)>>(address);
    };
    GetVlrLpcLogger get_logger = nullptr;  // used once, so it is not kept
    find(m_fptrInitializeLPCLib, "initializeLPCLib");
    find(m_fptrDeinitializeLPCLib, "deinitializeLPCLib");
    find(m_fptrGetVlrLpcFactory, "getVlrLpcFactory");
    find(m_fptrCreateAsyncResultId, "createAsyncResultId");
    find(m_fptrEnableLPCLib, "enableLPCLib");
    find(m_fptrDisableLPCLib, "disableLPCLib");
    find(get_logger, "getVlrLpcLogger");
    return complete;
}

void LPCDylibManager::closeLibrary() {
    dlclose(m_vlrLPCDLLHandle);
    m_vlrLPCDLLHandle = nullptr;
}

void LPCDylibManager::unloadVlrLpcDll(bool notify) {
    std::lock_guard loading(m_loading);
    if (!m_vlrLPCDLLHandle) return;
    {
        std::lock_guard guard(m_guard);
        m_isVlrLpcAvailable.store(false, std::memory_order_relaxed);
    }
    if (!m_unitTestingOnly) guarded(m_fptrDisableLPCLib);
    if (notify) m_pcallbacks->vlrlpcUnInstalledCallBack_();
    {
        std::unique_lock guard(m_guard);
        m_allBack.wait_for(guard, kLoanSeconds, [this] { return m_loans == 0; });
        m_pvlrLpcfactory = nullptr;
        m_loans = 0;
    }
    guarded(m_fptrDeinitializeLPCLib);
    closeLibrary();
    LPCLogger::getLogger()->logInfo(kModule,
                                    (L"Successfully released LPC runtime " + m_libPath).c_str());
}

void LPCDylibManager::announceRuntime() {
    if (m_isVlrLpcAvailable.load(std::memory_order_relaxed))
        m_pcallbacks->vlrlpcInstalledCallBack_();
}

bool LPCDylibManager::borrow(IVlrLpcFactory **factory) {
    std::lock_guard guard(m_guard);
    if (!m_isVlrLpcAvailable.load(std::memory_order_relaxed)) return false;
    m_loans++;
    *factory = m_pvlrLpcfactory;
    return true;
}

void LPCDylibManager::endLoan() {
    std::lock_guard guard(m_guard);
    if (m_loans > 0 && --m_loans == 0) m_allBack.notify_all();
}

template <class T>
T *LPCDylibManager::make(const ObjectRequest &request) {
    // The factory stays until the loan ends, also when unloading has begun meanwhile.
    IVlrLpcFactory *factory = nullptr;
    if (!borrow(&factory)) return nullptr;
    IVlrLpcObject *object = nullptr;
    if (factory) guarded([&] { return (object = factory->createObject(request)) ? 0 : -1; });
    if (T *wanted = dynamic_cast<T *>(object)) return wanted;
    if (object) destroy(factory, object);
    endLoan();
    return nullptr;
}

void LPCDylibManager::giveBack(IVlrLpcObject *object) {
    IVlrLpcFactory *factory;
    {
        std::lock_guard guard(m_guard);
        factory = m_pvlrLpcfactory;
    }
    // Without a factory the runtime was unloaded over this object's head; it is beyond help.
    if (!object || !factory) return;
    destroy(factory, object);
    endLoan();
}

ILPCRepository *LPCDylibManager::getLPCRepository() {
    return make<ILPCRepository>({ObjectRequest::kRepository, 0, nullptr, nullptr, nullptr});
}

void LPCDylibManager::releaseLPCRepository(ILPCRepository *&repository) {
    giveBack(repository);
    repository = nullptr;
}

INotificationService *LPCDylibManager::getNotificationService() {
    return make<INotificationService>({ObjectRequest::kNotification, 0, nullptr, nullptr, nullptr});
}

void LPCDylibManager::releaseNotificationService(INotificationService *&service) {
    giveBack(service);
    service = nullptr;
}

IObjectConnector *LPCDylibManager::createAsyncResultConnector(unsigned id) {
    return make<IObjectConnector>({ObjectRequest::kAsyncResult, id, nullptr, nullptr, nullptr});
}

IObjectConnector *LPCDylibManager::getObjectConnector(unsigned kind, const char *name) {
    return make<IObjectConnector>({ObjectRequest::kConnector, kind, nullptr, name, nullptr});
}

IObjectConnector *LPCDylibManager::getObjectConnector(const char *provider, const char *service) {
    return make<IObjectConnector>({ObjectRequest::kConnector, 0, provider, service, nullptr});
}

IObjectConnector *LPCDylibManager::getObjectConnector(const char *provider, const char *service,
                                                      const char *method) {
    return make<IObjectConnector>({ObjectRequest::kConnector, 0, provider, service, method});
}

void LPCDylibManager::destroyConnector(IObjectConnector *&connector) {
    giveBack(connector);
    connector = nullptr;
}

ISerializationFactory *LPCDylibManager::getSerializationFactory() {
    return m_isVlrLpcAvailable.load(std::memory_order_relaxed) ? m_pserializationFactory.get()
                                                               : nullptr;
}

unsigned LPCDylibManager::createAsyncResultId() {
    IVlrLpcFactory *unused = nullptr;
    if (!borrow(&unused)) return 0;
    const unsigned id = m_fptrCreateAsyncResultId();
    endLoan();
    return id;
}

}  // namespace velmor_com::NQ::LPC
