// Turns a policy of the management server into a rewritten configuration file and a restart.
#pragma once

#include "lpc/interfaces/IPolicyDataAccessor.h"
#include "lpc/interfaces/IPolicyEnforcement.h"

namespace velmor_com::NQ::LPC {

/// Holds no state of its own; any thread. Enforcements run one after another; one that a thread is
/// asked for in the midst of its own is refused with an ERROR line.
class IPolicyEnforcement_Servant_Impl : public IPolicyEnforcement_S {
  public:
    /// Fills the map of setting names.
    IPolicyEnforcement_Servant_Impl();
    bool isRunning() override { return false; }
    bool abort() override { return false; }
    /// Reads the policy, and when it differs from the configuration file rewrites that and restarts
    /// the collector. Always true, also after errors, which are in the log.
    bool enforcePolicy(const std::wstring &softwareid, IPolicyDataAccessor *paccessor) override;
    /// User policies mean nothing to a daemon: does nothing, true.
    bool enforcePolicy(const std::wstring &softwareid, const std::wstring &user,
                       const std::wstring &domain, unsigned long session,
                       manageability::LogonState state, IPolicyDataAccessor *paccessor) override;
};

}  // namespace velmor_com::NQ::LPC
