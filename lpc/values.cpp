#include "lpc/values.h"

#include <algorithm>

namespace velmor_com::NQ::manageability {

bool Lpc_OneSectionHandle::getSettingByIndex(size_t index, std::wstring &name,
                                             std::wstring &value) const {
    if (index >= settings_.size()) return false;
    name = settings_[index].first;
    value = settings_[index].second;
    return true;
}

bool Lpc_OneSectionHandle::insert(const std::wstring &name, const std::wstring &value) {
    if (!places_.emplace(name, settings_.size()).second) return false;
    settings_.emplace_back(name, value);
    return true;
}

bool Lpc_MultipleSectionsHandle::insert(const std::wstring &section, const std::wstring &name,
                                        const std::wstring &value) {
    auto found = std::find_if(items_.begin(), items_.end(),
                              [&](const auto &item) { return item.getName() == section; });
    if (found == items_.end()) found = items_.emplace(items_.end(), section);
    return found->insert(name, value);
}

void Lpc_PolicySettingObjectHandle::getAttributes(std::wstring &name, int &int_param,
                                                  std::wstring &str_param) const {
    name = name_;
    int_param = int_param_;
    str_param = str_param_;
}

Lpc_PolicyObjectHandle::Lpc_PolicyObjectHandle(std::wstring feature, std::wstring category,
                                               std::wstring type, std::wstring name,
                                               Lpc_PolicySettingObjectContainer settings)
    : feature_(std::move(feature)),
      category_(std::move(category)),
      type_(std::move(type)),
      name_(std::move(name)),
      settings_(std::move(settings)) {
}

void Lpc_PolicyObjectHandle::getAttributes(std::wstring &feature, std::wstring &category,
                                           std::wstring &type, std::wstring &name) const {
    feature = feature_;
    category = category_;
    type = type_;
    name = name_;
}

const Lpc_PolicySettingObjectContainer &Lpc_PolicyObjectHandle::getPolicySettingObjectContainer()
    const {
    return settings_;
}

}  // namespace velmor_com::NQ::manageability
