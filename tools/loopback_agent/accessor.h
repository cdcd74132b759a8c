// The agent's side of a policy push: hands out the policy that was read from a file.
#pragma once

#include "lpc/interfaces/IPolicyDataAccessor.h"
#include "tools/loopback_agent/policy_file.h"

namespace loopback {

using namespace velmor_com::NQ::LPC;

class PolicyAccessor : public IPolicyDataAccessor_S {
  public:
    /// What is handed out from now on; one thread, no call under way.
    void setPolicy(Policy policy) { m_policy = std::move(policy); }

    bool isRunning() override { return false; }
    bool abort() override { return false; }
    void setOperationTimeout(unsigned) override {}
    bool getPolicyObjectContainer(const std::wstring &,
                                  Lpc_PolicyObjectContainer &container) override {
        container = m_policy.objects;
        return true;
    }
    bool getAllPolicySections(const std::wstring &feature, const std::wstring &category,
                              const std::wstring &type, const std::wstring &settingName, int,
                              const std::wstring &, Lpc_MultipleSectionsHandle &sections) override;

  private:
    Policy m_policy;
};

}  // namespace loopback
