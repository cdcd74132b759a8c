// Publishes a servant, so that other processes can call it.
#pragma once

#include <new>

#include "lpc/dylib_manager.h"
#include "lpc/shapes.h"

namespace velmor_com::NQ::LPC {

/// T is the servant's class, an heir of Servant<Interface>.
template <class T>
class LPCServiceController {
  public:
    /// Wraps the servant in its adaptor and registers that in the runtime's repository. True: the
    /// repository owns the adaptor, and the adaptor the servant. False, after an error line: the
    /// servant is still the caller's. Any thread but several at once.
    static bool runService(T *servant) {
        LPCDylibManager *const manager = LPCDylibManager::instance();
        if (!servant) return refuse(L"Invalid service");
        ILPCRepository *repository = manager->getLPCRepository();
        if (!repository)
            return refuse(L"Unable to access LPC repository, please check LPC runtime");
        const bool published = publish(repository, servant);
        manager->releaseLPCRepository(repository);
        return published;
    }

  private:
    // Nothing is thrown to the threads of the runtime.
    static bool publish(ILPCRepository *repository, T *servant) try {
        auto *const adaptor = make_object<Adaptor<typename T::Interface>>(servant);
        if (adaptor) repository->registerAdaptor(servant->getInterfaceId().c_str(), adaptor);
        return adaptor != nullptr;
    } catch (const std::bad_alloc &) {
        return refuse(L"Memory allocation failure");
    }

    static bool refuse(const wchar_t *why) {
        refuse_object(why);
        return false;
    }
};

}  // namespace velmor_com::NQ::LPC
