// Through this a product reads its policy from the agent.
#pragma once

#include <string>

#include "lpc/shapes.h"

namespace velmor_com::NQ::LPC {

class IPolicyDataAccessor : public ILPCInterface {
  public:
    static constexpr char kInterfaceId[] = "IPolicyDataAccessor";
    using Text = const std::wstring &;
    using Objects = manageability::Lpc_PolicyObjectContainer;
    using Sections = manageability::Lpc_MultipleSectionsHandle;

    /// How long one call may take, in seconds.
    virtual void setOperationTimeout(unsigned seconds) = 0;
    /// The policy objects of a software; false when there are none.
    virtual bool getPolicyObjectContainer(Text softwareid, Objects &container) = 0;
    /// The sections of one setting object; false when it has none.
    virtual bool getAllPolicySections(Text feature, Text category, Text type, Text settingName,
                                      int int_param, Text str_param, Sections &sections) = 0;

    static constexpr auto operations() {
        using I = IPolicyDataAccessor;
        return std::make_tuple(Operation{"getPolicyObjectContainer", &I::getPolicyObjectContainer},
                               Operation{"getAllPolicySections", &I::getAllPolicySections});
    }
};

template <class Caller>
class IPolicyDataAccessor_Proxy : public Caller {
    using I = IPolicyDataAccessor;
    using Text = I::Text;

  public:
    using Caller::Caller;
    void setOperationTimeout(unsigned seconds) override { this->m_timeoutSeconds = seconds; }
    bool getPolicyObjectContainer(Text softwareid, I::Objects &container) override {
        return this->call(&I::getPolicyObjectContainer, softwareid, container);
    }
    bool getAllPolicySections(Text feature, Text category, Text type, Text settingName,
                              int int_param, Text str_param, I::Sections &sections) override {
        return this->call(&I::getAllPolicySections, feature, category, type, settingName, int_param,
                          str_param, sections);
    }
};

using IPolicyDataAccessor_S = Servant<IPolicyDataAccessor>;
using IPolicyDataAccessor_Client_Impl = IPolicyDataAccessor_Proxy<RemoteCall<IPolicyDataAccessor>>;
using Adaptor_IPolicyDataAccessor = Adaptor<IPolicyDataAccessor>;
using Adaptor_InProc_IPolicyDataAccessor =
    IPolicyDataAccessor_Proxy<InProcessCall<IPolicyDataAccessor>>;

}  // namespace velmor_com::NQ::LPC
