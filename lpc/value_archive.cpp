#include "lpc/value_archive.h"

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/polymorphic_iarchive.hpp>
#include <boost/archive/polymorphic_oarchive.hpp>
#include <boost/serialization/string.hpp>

namespace velmor_com::NQ::LPC {

using namespace manageability;
using cmx::updater::tag_PRODUCT_RETURN_VALUE;
using cmx::updater::tag_UPDATE_STATE;

namespace {

// Sections, settings and policy objects of one parameter, all lists together. An entry takes a few
// characters of input but some hundred bytes of memory, so the size of the input is no bound.
constexpr unsigned long kMaxEntries = 65536;

[[noreturn]] void refuse() {
    using boost::archive::archive_exception;
    throw archive_exception(archive_exception::input_stream_error);
}

template <class T>
T take(InArchive &archive) {
    T value{};
    archive >> value;
    return value;
}

template <class Enum>
Enum take_enum(InArchive &archive, int first, int last) {
    const int value = take<int>(archive);
    if (value < first || value > last) refuse();
    return static_cast<Enum>(value);
}

void put_int(OutArchive &archive, int value) {
    archive << value;
}

// Reads a list's number of entries and takes it off what the parameter may still hold.
unsigned long take_count(InArchive &archive, unsigned long *left) {
    const auto count = take<unsigned long>(archive);
    if (count > *left) refuse();
    *left -= count;
    return count;
}

Lpc_OneSectionHandle take_section(InArchive &archive, unsigned long *left) {
    Lpc_OneSectionHandle section(take<std::wstring>(archive));
    for (unsigned long count = take_count(archive, left); count > 0; count--) {
        const auto name = take<std::wstring>(archive);
        section.insert(name, take<std::wstring>(archive));
    }
    return section;
}

void put_settings(OutArchive &archive, const Lpc_PolicySettingObjectContainer &settings) {
    const unsigned long count = settings.size();
    archive << count;
    for (const auto &setting : settings) {
        std::wstring name, str_param;
        int int_param = 0;
        setting.getAttributes(name, int_param, str_param);
        archive << name << int_param << str_param;
    }
}

Lpc_PolicySettingObjectContainer take_settings(InArchive &archive, unsigned long *left) {
    Lpc_PolicySettingObjectContainer settings;
    for (unsigned long count = take_count(archive, left); count > 0; count--) {
        auto name = take<std::wstring>(archive);
        const auto int_param = take<int>(archive);
        settings.add({std::move(name), int_param, take<std::wstring>(archive)});
    }
    return settings;
}

}  // namespace

void save_value(OutArchive &archive, bool value) {
    archive << value;
}
void save_value(OutArchive &archive, int value) {
    archive << value;
}
void save_value(OutArchive &archive, unsigned long value) {
    archive << value;
}
void save_value(OutArchive &archive, const std::wstring &value) {
    archive << value;
}
void save_value(OutArchive &archive, LogonState value) {
    put_int(archive, value);
}
void save_value(OutArchive &archive, tag_PRODUCT_RETURN_VALUE value) {
    put_int(archive, value);
}
void save_value(OutArchive &archive, tag_UPDATE_STATE value) {
    put_int(archive, value);
}
void save_type(OutArchive &archive, Param_Type type) {
    put_int(archive, type);
}

void save_value(OutArchive &archive, const Lpc_OneSectionHandle &section) {
    const unsigned long count = section.size();
    archive << section.getName() << count;
    for (unsigned long i = 0; i < count; i++) {
        std::wstring name, value;
        section.getSettingByIndex(i, name, value);
        archive << name << value;
    }
}

void save_value(OutArchive &archive, const Lpc_MultipleSectionsHandle &sections) {
    const unsigned long count = sections.size();
    archive << count;
    for (const auto &section : sections) save_value(archive, section);
}

void save_value(OutArchive &archive, const Lpc_PolicyObjectContainer &objects) {
    const unsigned long count = objects.size();
    archive << count;
    for (const auto &object : objects) {
        std::wstring feature, category, type, name;
        object.getAttributes(feature, category, type, name);
        archive << feature << category << type << name;
        put_settings(archive, object.getPolicySettingObjectContainer());
    }
}

void load_value(InArchive &archive, bool &value) {
    archive >> value;
}
void load_value(InArchive &archive, int &value) {
    archive >> value;
}
void load_value(InArchive &archive, unsigned long &value) {
    archive >> value;
}
void load_value(InArchive &archive, std::wstring &value) {
    archive >> value;
}

void load_value(InArchive &archive, LogonState &value) {
    value = take_enum<LogonState>(archive, UBPNOTLOGGEDON, UBPLOGOFF);
}

// Kept: the two enumerations of the updater are not checked, its newer releases know more states
// than this one and the collector only hands them through.
void load_value(InArchive &archive, tag_PRODUCT_RETURN_VALUE &value) {
    value = static_cast<tag_PRODUCT_RETURN_VALUE>(take<int>(archive));
}

void load_value(InArchive &archive, tag_UPDATE_STATE &value) {
    value = static_cast<tag_UPDATE_STATE>(take<int>(archive));
}

Param_Type load_type(InArchive &archive) {
    return take_enum<Param_Type>(archive, ptReturnValue, ptNotificationId);
}

void load_value(InArchive &archive, Lpc_OneSectionHandle &value) {
    unsigned long left = kMaxEntries;
    value = take_section(archive, &left);
}

void load_value(InArchive &archive, Lpc_MultipleSectionsHandle &value) {
    unsigned long left = kMaxEntries;
    Lpc_MultipleSectionsHandle sections;
    for (unsigned long count = take_count(archive, &left); count > 0; count--)
        sections.add(take_section(archive, &left));
    value = std::move(sections);
}

void load_value(InArchive &archive, Lpc_PolicyObjectContainer &value) {
    unsigned long left = kMaxEntries;
    Lpc_PolicyObjectContainer objects;
    for (unsigned long count = take_count(archive, &left); count > 0; count--) {
        auto feature = take<std::wstring>(archive), category = take<std::wstring>(archive);
        auto type = take<std::wstring>(archive), name = take<std::wstring>(archive);
        objects.add({std::move(feature), std::move(category), std::move(type), std::move(name),
                     take_settings(archive, &left)});
    }
    value = std::move(objects);
}

}  // namespace velmor_com::NQ::LPC
