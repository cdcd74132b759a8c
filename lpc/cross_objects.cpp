#include "lpc/cross_objects.h"

#include <atomic>
#include <new>

namespace velmor_com::NQ::LPC {

namespace {

std::atomic<ServicesCrossObjectFactory::Reload> reload_runtime{nullptr};

class RuntimeControl : public IVlrLpcRuntimeControl {
  public:
    void reload() override {
        if (const auto reload = reload_runtime.load()) reload();
    }
};

}  // namespace

ServicesCrossObjectFactory::~ServicesCrossObjectFactory() = default;

IVlrLpcServicesObject *ServicesCrossObjectFactory::createObject(unsigned kind) {
    return createObject(kind, nullptr);
}

IVlrLpcServicesObject *ServicesCrossObjectFactory::createObject(unsigned kind, void *) {
    return kind == kRuntimeControl ? new (std::nothrow) RuntimeControl : nullptr;
}

void ServicesCrossObjectFactory::destroyObject(IVlrLpcServicesObject *&object) {
    delete object;
    object = nullptr;
}

ServicesCrossObjectFactory *ServicesCrossObjectFactory::instance() {
    static ServicesCrossObjectFactory factory;
    return &factory;
}

void ServicesCrossObjectFactory::setReload(Reload reload) {
    reload_runtime.store(reload);
}

}  // namespace velmor_com::NQ::LPC
