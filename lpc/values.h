// The values that LPC calls carry besides plain scalars and text. They are plain containers; how
// they are encoded stands in value_archive.cpp. A value belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace velmor_com::NQ::manageability {

/// Whether the user of a user policy is logged on.
enum LogonState : int { UBPNOTLOGGEDON = 0, UBPLOGON = 1, UBPLOGGEDON = 2, UBPLOGOFF = 3 };

/// A named set of settings. A setting keeps its first value; the index of a setting is its place
/// in the order of insertion.
class Lpc_OneSectionHandle {
  public:
    Lpc_OneSectionHandle() = default;
    explicit Lpc_OneSectionHandle(std::wstring name) : name_(std::move(name)) {}

    const std::wstring &getName() const { return name_; }
    size_t size() const { return settings_.size(); }
    /// False, with the arguments unchanged, when there is no such index.
    bool getSettingByIndex(size_t index, std::wstring &name, std::wstring &value) const;
    /// False when the name is already there; its value then stays.
    bool insert(const std::wstring &name, const std::wstring &value);

  private:
    std::wstring name_;
    std::vector<std::pair<std::wstring, std::wstring>> settings_;
    std::map<std::wstring, size_t> places_;
};

/// An ordered list of values, with what its name promises and no more.
template <class T>
class HandleList {
  public:
    size_t size() const { return items_.size(); }
    const T &operator[](size_t index) const { return items_[index]; }
    void add(T item) { items_.push_back(std::move(item)); }
    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }

  protected:
    std::vector<T> items_;
};

class Lpc_MultipleSectionsHandle : public HandleList<Lpc_OneSectionHandle> {
  public:
    /// Adds a setting to the section of that name, which is created on first use. False when the
    /// section already has the setting.
    bool insert(const std::wstring &section, const std::wstring &name, const std::wstring &value);
};

class Lpc_PolicySettingObjectHandle {
  public:
    Lpc_PolicySettingObjectHandle() = default;
    Lpc_PolicySettingObjectHandle(std::wstring name, int int_param, std::wstring str_param)
        : name_(std::move(name)), int_param_(int_param), str_param_(std::move(str_param)) {}
    void getAttributes(std::wstring &name, int &int_param, std::wstring &str_param) const;

  private:
    std::wstring name_;
    int int_param_ = 0;
    std::wstring str_param_;
};

class Lpc_PolicySettingObjectContainer : public HandleList<Lpc_PolicySettingObjectHandle> {};

class Lpc_PolicyObjectHandle {
  public:
    Lpc_PolicyObjectHandle() = default;
    Lpc_PolicyObjectHandle(std::wstring feature, std::wstring category, std::wstring type,
                           std::wstring name, Lpc_PolicySettingObjectContainer settings);
    void getAttributes(std::wstring &feature, std::wstring &category, std::wstring &type,
                       std::wstring &name) const;
    const Lpc_PolicySettingObjectContainer &getPolicySettingObjectContainer() const;

  private:
    std::wstring feature_, category_, type_, name_;
    Lpc_PolicySettingObjectContainer settings_;
};

class Lpc_PolicyObjectContainer : public HandleList<Lpc_PolicyObjectHandle> {};

}  // namespace velmor_com::NQ::manageability

namespace velmor_com::cmx::updater {

/// Answer of the update callback.
enum tag_PRODUCT_RETURN_VALUE : int { PRODUCT_RETURN_OK = 0, PRODUCT_RETURN_FAIL = 1 };
/// How far an update has come; the collector passes it through unchanged.
enum tag_UPDATE_STATE : int { UPDATE_STATE_NONE, UPDATE_STATE_RUNNING, UPDATE_STATE_DONE };

}  // namespace velmor_com::cmx::updater
