// Which classes make an interface's objects: per identifier a factory for client proxies and one
// for in-process adaptors.
#pragma once

#include <map>
#include <mutex>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "lpc/interface.h"
#include "lpc/make_object.h"
#include "lpc/vlr_runtime.h"

namespace velmor_com::NQ::LPC {

class ILPCFactory {
  public:
    virtual ~ILPCFactory() = default;
    /// A new client proxy for that provider, owned by the caller; null when it cannot be made.
    virtual ILPCInterface *createObject(const char *provider) = 0;
    /// A new in-process object around a service adaptor of this process, in the same way.
    virtual ILPCInterface *createObject(IServiceAdaptor *adaptor, const char *provider) = 0;
};

template <class T>
class StdFactory : public ILPCFactory {  // makes client proxies
  public:
    ILPCInterface *createObject(const char *provider) override {
        return provider ? make_object<T>(provider) : refuse_object(L"Invalid arguments");
    }
    ILPCInterface *createObject(IServiceAdaptor *, const char *) override { return nullptr; }
};

template <class T>
class StdFactory2 : public ILPCFactory {  // makes in-process adaptors
  public:
    ILPCInterface *createObject(const char *) override { return nullptr; }
    ILPCInterface *createObject(IServiceAdaptor *adaptor, const char *provider) override {
        if (!adaptor || !provider) return refuse_object(L"Invalid arguments");
        return make_object<T>(adaptor, provider);
    }
};

/// Null until registered; the factories are never deleted.
struct ClientServantPair {
    ILPCFactory *client = nullptr;
    ILPCFactory *servant = nullptr;
};

/// One per process. Registration happens at start-up, before the services are started.
class LPCFactory {
  public:
    static LPCFactory *instance();
    virtual ~LPCFactory() = default;

    void configure(const std::string &processId);
    std::string processIdentifier();
    /// Puts the factory in the place of an earlier one; always true.
    bool registerInterface(const std::string &interfaceId, ILPCFactory *factory, bool servant);
    /// A new object for the interface as that process provides it: an in-process adaptor when it
    /// is this process, else a client proxy. Owned by the caller; null, logged, on failure.
    ILPCInterface *createInstance(const std::string &interfaceId, const std::string &provider);

  private:
    ILPCInterface *createInProcess(ILPCFactory *factory, const char *interfaceId,
                                   const char *provider);
    std::map<std::string, ClientServantPair> m_registry;
    std::string m_processIdentifier;
    std::vector<ILPCFactory *> m_replaced;  ///< may still be at work
    std::mutex m_guard;  ///< registration is over when others read, except after a reload
};

/// Null arguments are logged and refused.
bool registerInFactory(const char *interfaceId, ILPCFactory *factory, bool servant);
void configureLPCFactory(const char *processId);

/// Makes the factory for T and registers it: T says itself whether it is an in-process adaptor.
template <class T>
bool factoryRegHelper(const char *interfaceId) try {
    using Factory = std::conditional_t<T::kInProcess, StdFactory2<T>, StdFactory<T>>;
    ILPCFactory *const factory = make_object<Factory>();
    return factory && registerInFactory(interfaceId, factory, T::kInProcess);
} catch (const std::bad_alloc &) {
    refuse_object(L"Memory allocation failure");
    return false;
}

template <class T>
bool registerInterface(const char *interfaceId) {
    return factoryRegHelper<T>(interfaceId);
}

}  // namespace velmor_com::NQ::LPC
