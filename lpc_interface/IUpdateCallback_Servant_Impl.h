// The update callback of this product: answers from constants.
#pragma once

#include "lpc/interfaces/IUpdateCallback.h"

namespace velmor_com::NQ::updater {

/// Holds no state; any thread.
class IUpdateCallback_Servant_Impl : public IUpdateCallback_S {
  public:
    bool isRunning() override { return false; }
    bool abort() override { return false; }
    /// Both are noted in the log and answered with 0; the state is unchanged.
    tag_PRODUCT_RETURN_VALUE UpdateNotify(const std::wstring &, const std::wstring &,
                                          const std::wstring &, tag_UPDATE_STATE &) override;
    tag_PRODUCT_RETURN_VALUE SetProductInfo(const std::wstring &, const std::wstring &,
                                            const std::wstring &) override;
    /// Knows "Version" and "Location", exactly so written; 1 for anything else. Only "Version"
    /// stores a value.
    tag_PRODUCT_RETURN_VALUE GetProductInfo(const std::wstring &, const std::wstring &name,
                                            std::wstring &value) override;
};

}  // namespace velmor_com::NQ::updater
