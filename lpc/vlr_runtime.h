// What the agent's runtime library offers: the objects that it makes, and its entry points. The
// library is never linked; it is loaded at run time (dylib_manager.h), so everything here is
// abstract. Text that crosses is narrow and terminated; it is valid during the call.
#pragma once

#include <cstddef>

namespace velmor_com::NQ::LPC {

class ISerializationFactory;
class ServicesCrossObjectFactory;

/// Called by the runtime on threads of its own.
struct VlrLpcCallbacks {
    /// The runtime asks for the pass phrase: arg2 is the buffer, *arg2_size its capacity and then
    /// the number of bytes written. False refuses.
    bool (*validationCallback_)(const unsigned char *arg1, unsigned long arg1_size,
                                unsigned char *arg2, unsigned long *arg2_size);
    void (*vlrlpcInstalledCallBack_)();    ///< the runtime has become available
    void (*vlrlpcUnInstalledCallBack_)();  ///< the runtime goes away
};

/// Anything that the runtime's factory makes. Handed back to the factory, never deleted.
class IVlrLpcObject {
  public:
    virtual ~IVlrLpcObject() = default;
};

/// One call on its way: a queue of encoded parameters out, a queue of encoded parameters in.
/// Used by one thread.
class IObjectConnector : public IVlrLpcObject {
  public:
    static constexpr int kDone = -1;  ///< invoke() succeeded; other results are error codes

    /// Appends one parameter to those that go out; false when the call cannot take it.
    virtual bool write(const void *bytes, size_t size) = 0;
    /// Sends what was written. With `wait`, returns when the answer's parameters are there or after
    /// `timeout_seconds` (0: the runtime's own limit). Returns kDone or an LPCErrorCode.
    virtual int invoke(bool wait, unsigned timeout_seconds) = 0;
    /// Stores the size of the next parameter that came in; false when there is none left.
    virtual bool nextSize(size_t *size) = 0;
    /// Copies the next parameter, of exactly `size` bytes, and takes it off the queue.
    virtual bool read(void *bytes, size_t size) = 0;
};

/// The providing side of one interface: unmarshals a call, runs it, writes the answer.
class IServiceAdaptor {
  public:
    virtual ~IServiceAdaptor() = default;
    /// Any thread, several at once. Returns IObjectConnector::kDone or an LPCErrorCode; never
    /// throws. After an error nothing of the answer counts.
    virtual int dispatch(IObjectConnector *call) = 0;
};

/// The services that this process offers, by interface identifier. Any thread.
class ILPCRepository : public IVlrLpcObject {
  public:
    /// The adaptor under this identifier or null; it stays valid until the runtime is unloaded.
    virtual IServiceAdaptor *findAdaptor(const char *interfaceId) = 0;
    /// Publishes an adaptor, in the place of an earlier one, and owns it from now on.
    virtual void registerAdaptor(const char *interfaceId, IServiceAdaptor *adaptor) = 0;
};

/// Announcements of the agent. The collector has no use for them yet.
class INotificationService : public IVlrLpcObject {};

/// Which object is wanted. Names that a kind does not need are null.
struct ObjectRequest {
    enum Kind : unsigned { kRepository = 1, kNotification, kConnector, kAsyncResult } kind;
    unsigned number;  ///< the identifier of an asynchronous result, or a connector's numeric kind
    const char *provider, *service, *method;
};

/// Makes the runtime's objects and takes them back. Any thread.
class IVlrLpcFactory {
  public:
    virtual ~IVlrLpcFactory() = default;
    virtual IVlrLpcObject *createObject(const ObjectRequest &request) = 0;  ///< null: cannot
    virtual void destroyObject(IVlrLpcObject *&object) = 0;                 ///< sets it to null
};

/// Where the runtime writes its own messages. Kinds: 0 info, 1 detail, 2 warning, 3 error, 4 debug.
class IVlrLpcLogger {
  public:
    virtual ~IVlrLpcLogger() = default;
    virtual void setMethod(unsigned kind, void (*method)(const wchar_t *, const wchar_t *)) = 0;
    virtual void setGeneral(void (*general)(int level, const wchar_t *message)) = 0;
};

/// The seven entry points, exported with C linkage under the names of dylib_manager.cpp. The int
/// results are 0 for success. deinitializeLPCLib returns when no thread of the runtime runs.
using InitializeLPCLib = int (*)(const char *processId, const wchar_t *tmpDir,
                                 ISerializationFactory *, VlrLpcCallbacks *,
                                 ServicesCrossObjectFactory *);
using StatusEntry = int (*)();  ///< deinitializeLPCLib, enableLPCLib, disableLPCLib
using GetVlrLpcFactory = IVlrLpcFactory *(*)();
using CreateAsyncResultId = unsigned (*)();
using GetVlrLpcLogger = IVlrLpcLogger *(*)();

}  // namespace velmor_com::NQ::LPC
