#include "tools/loopback_agent/accessor.h"

namespace loopback {

bool PolicyAccessor::getAllPolicySections(const std::wstring &feature, const std::wstring &category,
                                          const std::wstring &type, const std::wstring &settingName,
                                          int, const std::wstring &,
                                          Lpc_MultipleSectionsHandle &sections) {
    size_t at = 0;
    for (const auto &object : m_policy.objects) {
        std::wstring f, c, t, policy_name;
        object.getAttributes(f, c, t, policy_name);
        for (const auto &setting : object.getPolicySettingObjectContainer()) {
            std::wstring name, str_param;
            int int_param = 0;
            setting.getAttributes(name, int_param, str_param);
            if (f == feature && c == category && t == type && name == settingName) {
                sections = m_policy.sections[at];
                return true;
            }
            at++;
        }
    }
    return false;
}

}  // namespace loopback
