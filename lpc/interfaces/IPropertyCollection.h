// Through this the agent reads what a product reports about itself.
#pragma once

#include <string>

#include "lpc/shapes.h"

namespace velmor_com::NQ::LPC {

class IPropertyCollection : public ILPCInterface {
  public:
    static constexpr char kInterfaceId[] = "IPropertyCollection";

    /// Whether the software of that identifier is served here.
    virtual bool isSoftwareExists(const std::wstring &softwareid) = 0;
    /// Adds the properties to `sections`, which comes back to the caller.
    virtual bool collectProperties(bool flag,
                                   manageability::Lpc_MultipleSectionsHandle &sections) = 0;

    static constexpr auto operations() {
        using I = IPropertyCollection;
        return std::make_tuple(Operation{"isSoftwareExists", &I::isSoftwareExists},
                               Operation{"collectProperties", &I::collectProperties});
    }
};

template <class Caller>
class IPropertyCollection_Proxy : public Caller {
  public:
    using Caller::Caller;
    bool isSoftwareExists(const std::wstring &softwareid) override {
        return this->call(&IPropertyCollection::isSoftwareExists, softwareid);
    }
    bool collectProperties(bool flag,
                           manageability::Lpc_MultipleSectionsHandle &sections) override {
        return this->call(&IPropertyCollection::collectProperties, flag, sections);
    }
};

using IPropertyCollection_S = Servant<IPropertyCollection>;
using IPropertyCollection_Client_Impl = IPropertyCollection_Proxy<RemoteCall<IPropertyCollection>>;
using Adaptor_IPropertyCollection = Adaptor<IPropertyCollection>;
using Adaptor_InProc_IPropertyCollection =
    IPropertyCollection_Proxy<InProcessCall<IPropertyCollection>>;

}  // namespace velmor_com::NQ::LPC
