// The properties of this product: its version, its language and every line of its configuration.
#pragma once

#include "lpc/interfaces/IPropertyCollection.h"

namespace velmor_com::NQ::LPC {

/// Holds no state; any thread.
class IPropertyCollection_Servant_Impl : public IPropertyCollection_S {
  public:
    bool isRunning() override { return false; }
    bool abort() override { return false; }
    /// True for any identifier.
    bool isSoftwareExists(const std::wstring &softwareid) override;
    /// Adds the sections "General" and "Config"; always true, with what could be collected.
    bool collectProperties(bool flag, manageability::Lpc_MultipleSectionsHandle &sections) override;
};

}  // namespace velmor_com::NQ::LPC
