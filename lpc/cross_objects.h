// The objects that this process makes for the runtime: the counterpart of the runtime's factory.
#pragma once

namespace velmor_com::NQ::LPC {

/// Anything that ServicesCrossObjectFactory makes.
class IVlrLpcServicesObject {
  public:
    virtual ~IVlrLpcServicesObject() = default;
};

/// By this the runtime asks to be replaced, for instance after the agent was upgraded. A library
/// cannot unload itself: its own code would be gone under the thread that asks.
class IVlrLpcRuntimeControl : public IVlrLpcServicesObject {
  public:
    /// Unloads the runtime (with the uninstalled callback), loads it again and calls the installed
    /// callback, all on a thread of this process. Returns at once.
    virtual void reload() = 0;
};

/// The process-wide instance is handed to the runtime at initialisation. Any thread.
class ServicesCrossObjectFactory {
  public:
    enum Kind : unsigned { kRuntimeControl = 1 };
    using Reload = void (*)();

    virtual ~ServicesCrossObjectFactory();

    /// Makes an object; null for a kind that does not exist. `arg` is for kinds that need one; none
    /// does today.
    virtual IVlrLpcServicesObject *createObject(unsigned kind);
    virtual IVlrLpcServicesObject *createObject(unsigned kind, void *arg);
    /// Deletes the object and sets the pointer to null.
    virtual void destroyObject(IVlrLpcServicesObject *&object);

    static ServicesCrossObjectFactory *instance();
    /// What a runtime control does. Set once, before the runtime is loaded.
    static void setReload(Reload reload);
};

}  // namespace velmor_com::NQ::LPC
