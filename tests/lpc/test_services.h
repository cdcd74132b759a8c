// Implementations of the interfaces that note how they were called.
#pragma once

#include <string>

#include "lpc/interfaces/IPolicyDataAccessor.h"
#include "lpc/interfaces/IPolicyEnforcement.h"
#include "lpc/interfaces/IPropertyCollection.h"
#include "lpc/interfaces/IUpdateCallback.h"

namespace velmor_com::NQ::LPC {

class TestProperties : public IPropertyCollection_S {
  public:
    bool isRunning() override { return true; }
    bool abort() override { return false; }
    bool isSoftwareExists(const std::wstring &softwareid) override {
        if (softwareid == L"throw") throw std::runtime_error("from the servant");
        return softwareid == L"known";
    }
    bool collectProperties(bool flag,
                           manageability::Lpc_MultipleSectionsHandle &sections) override {
        sections.insert(L"Answer", L"flag", flag ? L"yes" : L"no");
        return true;
    }
};

class TestAccessor : public IPolicyDataAccessor_S {
  public:
    bool isRunning() override { return false; }
    bool abort() override { return false; }
    void setOperationTimeout(unsigned) override {}
    bool getPolicyObjectContainer(const std::wstring &softwareid, Objects &objects) override {
        objects.add({softwareid, L"c", L"t", L"n", {}});
        return true;
    }
    bool getAllPolicySections(const std::wstring &feature, const std::wstring &category,
                              const std::wstring &type, const std::wstring &settingName,
                              int int_param, const std::wstring &str_param,
                              Sections &sections) override {
        sections.insert(feature + category + type, settingName + std::to_wstring(int_param),
                        str_param);
        return true;
    }
};

class TestEnforcement : public IPolicyEnforcement_S {
  public:
    bool isRunning() override { return false; }
    bool abort() override { return true; }
    bool enforcePolicy(const std::wstring &softwareid, IPolicyDataAccessor *paccessor) override {
        last = L"machine " + softwareid;
        if (!paccessor) return false;
        IPolicyDataAccessor::Objects objects;
        IPolicyDataAccessor::Sections sections;
        if (!paccessor->getPolicyObjectContainer(L"feature", objects)) return false;
        std::wstring feature, category, type, name;
        objects[0].getAttributes(feature, category, type, name);
        paccessor->getAllPolicySections(feature, category, type, name, -3, L"text", sections);
        std::wstring setting, value;
        sections[0].getSettingByIndex(0, setting, value);
        last += L" " + sections[0].getName() + L" " + setting + L" " + value;
        return true;
    }
    bool enforcePolicy(const std::wstring &softwareid, const std::wstring &user,
                       const std::wstring &domain, unsigned long session,
                       manageability::LogonState state, IPolicyDataAccessor *paccessor) override {
        last = L"user " + softwareid + user + domain + std::to_wstring(session) +
               std::to_wstring(state) + (paccessor ? L"+" : L"-");
        return true;
    }
    static inline std::wstring last;
};

}  // namespace velmor_com::NQ::LPC
