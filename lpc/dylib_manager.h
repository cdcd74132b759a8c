// Finds, loads and initialises the agent's runtime library, and hands out the objects that it
// makes. Failures are logged under "LPCDLLManager" and reported by the result; nothing is thrown.
//
// Loading and unloading exclude each other. The getters may be called on any thread and at any
// time: unloading first makes them fail and then waits for the objects that are still out.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "lpc/runtime_location.h"
#include "lpc/serialization.h"
#include "lpc/vlr_runtime.h"

namespace velmor_com::NQ::LPC {

class LPCDylibManager {
  public:
    /// The one of the process; further ones serve tests.
    static LPCDylibManager *instance();
    /// Unit-test mode of managers made from now on: the runtime is looked up by its bare name and
    /// is neither enabled nor disabled.
    static void setUTMode(bool on);

    explicit LPCDylibManager(std::string agentConfigFile = kAgentConfigFile);
    ~LPCDylibManager();

    /// Takes the identifier and loads the runtime: 0 loaded and enabled, 1 not installed, -1
    /// failed. With 0 and 1 the manager owns both objects and sets the caller's pointers to null;
    /// with -1 they stay the caller's. After 1 and -1 it may be called again.
    int initialize(const std::string &processId, const std::wstring &tmpDir,
                   VlrLpcCallbacks *&callbacks, ISerializationFactory *&factory);
    /// Unloads without telling anyone.
    void deinitialize() { unloadVlrLpcDll(false); }

    /// Loads with the identifier of initialize(); with `reload` a missing location is a failure.
    /// Returns as initialize().
    int loadVlrLpcDll(bool reload);
    /// Does nothing when no runtime is loaded. `notify`: calls the uninstalled callback.
    void unloadVlrLpcDll(bool notify);
    /// Calls the installed callback, on behalf of a runtime that has just been loaded again.
    void announceRuntime();

    /// Null when the runtime is not available. What is got is handed back; null is ignored then.
    ILPCRepository *getLPCRepository();
    void releaseLPCRepository(ILPCRepository *&repository);
    INotificationService *getNotificationService();
    void releaseNotificationService(INotificationService *&service);
    IObjectConnector *createAsyncResultConnector(unsigned id);
    IObjectConnector *getObjectConnector(unsigned kind, const char *name);
    IObjectConnector *getObjectConnector(const char *provider, const char *service);
    IObjectConnector *getObjectConnector(const char *provider, const char *service,
                                         const char *method);
    void destroyConnector(IObjectConnector *&connector);
    /// Null when the runtime is not available. Stays valid as long as the manager.
    ISerializationFactory *getSerializationFactory();
    /// 0 when the runtime is not loaded.
    unsigned createAsyncResultId();

  private:
    bool chooseIdentifier(const std::string &processId);
    bool readLPCRuntimeLocation();
    int openLibrary(bool reload);
    bool findEntryPoints();
    int startRuntime();
    void closeLibrary();
    bool borrow(IVlrLpcFactory **factory);
    void endLoan();
    void giveBack(IVlrLpcObject *object);
    template <class T>
    T *make(const ObjectRequest &request);

    std::atomic<bool> m_isVlrLpcAvailable{false};
    IVlrLpcFactory *m_pvlrLpcfactory = nullptr;
    InitializeLPCLib m_fptrInitializeLPCLib = nullptr;
    StatusEntry m_fptrDeinitializeLPCLib = nullptr;
    GetVlrLpcFactory m_fptrGetVlrLpcFactory = nullptr;
    CreateAsyncResultId m_fptrCreateAsyncResultId = nullptr;
    StatusEntry m_fptrEnableLPCLib = nullptr;
    StatusEntry m_fptrDisableLPCLib = nullptr;
    std::unique_ptr<ISerializationFactory> m_pserializationFactory;
    std::wstring m_libPath;
    void *m_vlrLPCDLLHandle = nullptr;
    VlrLpcCallbacks *m_pcallbacks = nullptr;
    std::string m_processIdentifier;
    std::wstring m_tmpDirName;
    const bool m_unitTestingOnly;
    const std::string m_agentConfigFile;
    std::string m_narrowLibPath;                       ///< m_libPath as dlopen() wants it
    std::unique_ptr<VlrLpcCallbacks> m_keptCallbacks;  ///< m_pcallbacks once it is ours
    std::mutex m_loading;                              ///< held over a whole load or unload
    std::mutex m_guard;                                ///< for a moment: the factory and the loans
    unsigned m_loans = 0;                              ///< runtime objects that are out
    std::condition_variable m_allBack;
};

}  // namespace velmor_com::NQ::LPC
