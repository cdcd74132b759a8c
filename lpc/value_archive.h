// How each carried value is written to and read from an archive. One pair of functions per type;
// they are defined in one source, so that the headers of Boost are compiled once.
//
// Lists are their number of entries and the entries, texts are Boost's length and characters.
// Reading is bounded: see the limits in value_archive.cpp. All functions throw what the archive
// throws.
#pragma once

#include <string>

#include "lpc/serialization.h"
#include "lpc/values.h"

namespace velmor_com::NQ::LPC {

/// The role of a parameter within a call; written in front of each value.
enum Param_Type : int {
    ptReturnValue = 1,
    ptArgument = 2,
    ptNamespace = 3,
    ptService = 4,
    ptMethod = 5,
    ptAsyncResultId = 6,
    ptNotificationId = 7,
};

using OutArchive = boost::archive::polymorphic_oarchive;
using InArchive = boost::archive::polymorphic_iarchive;

void save_value(OutArchive &archive, bool value);
void save_value(OutArchive &archive, int value);
void save_value(OutArchive &archive, unsigned long value);
void save_value(OutArchive &archive, const std::wstring &value);
void save_value(OutArchive &archive, manageability::LogonState value);
void save_value(OutArchive &archive, const manageability::Lpc_MultipleSectionsHandle &value);
void save_value(OutArchive &archive, const manageability::Lpc_OneSectionHandle &value);
void save_value(OutArchive &archive, const manageability::Lpc_PolicyObjectContainer &value);
void save_value(OutArchive &archive, cmx::updater::tag_PRODUCT_RETURN_VALUE value);
void save_value(OutArchive &archive, cmx::updater::tag_UPDATE_STATE value);

/// The value is replaced whole.
void load_value(InArchive &archive, bool &value);
void load_value(InArchive &archive, int &value);
void load_value(InArchive &archive, unsigned long &value);
void load_value(InArchive &archive, std::wstring &value);
void load_value(InArchive &archive, manageability::LogonState &value);
void load_value(InArchive &archive, manageability::Lpc_MultipleSectionsHandle &value);
void load_value(InArchive &archive, manageability::Lpc_OneSectionHandle &value);
void load_value(InArchive &archive, manageability::Lpc_PolicyObjectContainer &value);
void load_value(InArchive &archive, cmx::updater::tag_PRODUCT_RETURN_VALUE &value);
void load_value(InArchive &archive, cmx::updater::tag_UPDATE_STATE &value);

/// The type of a parameter, in front of its value. Reading throws on a value outside the list.
void save_type(OutArchive &archive, Param_Type type);
Param_Type load_type(InArchive &archive);

}  // namespace velmor_com::NQ::LPC
