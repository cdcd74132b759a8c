// Through this the agent tells a product that there is a new policy. Sources that make one of the
// shapes below also include interfaces/IPolicyDataAccessor.h.
#pragma once

#include <string>

#include "lpc/shapes.h"

namespace velmor_com::NQ::LPC {

class IPolicyDataAccessor;

class IPolicyEnforcement : public ILPCInterface {
  public:
    static constexpr char kInterfaceId[] = "IPolicyEnforcement";
    using Text = const std::wstring &;
    using LogonState = manageability::LogonState;
    using ForMachine = bool (IPolicyEnforcement::*)(Text, IPolicyDataAccessor *);
    using ForUser = bool (IPolicyEnforcement::*)(Text, Text, Text, unsigned long, LogonState,
                                                 IPolicyDataAccessor *);

    /// How long one call may take, in seconds; of interest to proxies only.
    virtual void setOperationTimeout(unsigned) {}
    /// The policy of the machine is to be read through `paccessor`, which is valid during the call.
    virtual bool enforcePolicy(Text softwareid, IPolicyDataAccessor *paccessor) = 0;
    /// The same for the policy of a user and a session.
    virtual bool enforcePolicy(Text softwareid, Text user, Text domain, unsigned long session,
                               LogonState state, IPolicyDataAccessor *paccessor) = 0;

    /// On the wire the overloads have names of their own.
    static constexpr auto operations() {
        using I = IPolicyEnforcement;
        return std::make_tuple(Operation<ForMachine>{"enforcePolicy", &I::enforcePolicy},
                               Operation<ForUser>{"enforceUserPolicy", &I::enforcePolicy});
    }
};

template <class Caller>
class IPolicyEnforcement_Proxy : public Caller {
    using I = IPolicyEnforcement;

  public:
    using Caller::Caller;
    void setOperationTimeout(unsigned seconds) override { this->m_timeoutSeconds = seconds; }
    bool enforcePolicy(I::Text softwareid, IPolicyDataAccessor *paccessor) override {
        return this->call(I::ForMachine{&I::enforcePolicy}, softwareid, paccessor);
    }
    bool enforcePolicy(I::Text softwareid, I::Text user, I::Text domain, unsigned long session,
                       I::LogonState state, IPolicyDataAccessor *paccessor) override {
        return this->call(I::ForUser{&I::enforcePolicy}, softwareid, user, domain, session, state,
                          paccessor);
    }
};

using IPolicyEnforcement_S = Servant<IPolicyEnforcement>;
using IPolicyEnforcement_Client_Impl = IPolicyEnforcement_Proxy<RemoteCall<IPolicyEnforcement>>;
using Adaptor_IPolicyEnforcement = Adaptor<IPolicyEnforcement>;
using Adaptor_InProc_IPolicyEnforcement =
    IPolicyEnforcement_Proxy<InProcessCall<IPolicyEnforcement>>;

}  // namespace velmor_com::NQ::LPC
