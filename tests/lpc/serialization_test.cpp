// The serialization factory alone, as a runtime uses it, beside the archives of the library.
#include "lpc/serialization.h"

#include <gtest/gtest.h>

#include <boost/archive/polymorphic_text_wiarchive.hpp>
#include <boost/archive/polymorphic_text_woarchive.hpp>
#include <boost/serialization/string.hpp>
#include <sstream>
#include <string>

#include "lpc/value_archive.h"

namespace velmor_com::NQ::LPC {
namespace {

using boost::archive::polymorphic_text_wiarchive;
using boost::archive::polymorphic_text_woarchive;

const std::wstring kText(L"a b\n\0z \u20ac", 8);

// One value of each kind that has an encoding of its own.
struct Values {
    Param_Type type = ptArgument;
    std::wstring text = kText;
    bool yes = true;
    int number = -5;
    unsigned long large = ~0ul;
    manageability::LogonState state = manageability::UBPLOGOFF;
    bool operator==(const Values &) const = default;
};

const Values kEmptied{ptReturnValue, L"", false, 0, 0, manageability::UBPNOTLOGGEDON};

void write_own(std::wstringstream &stream) {
    SerializationFactory factory;
    OutArchive *archive = nullptr;
    factory.createOarchive(stream, archive);
    ASSERT_NE(archive, nullptr);
    const Values values;
    save_type(*archive, values.type);
    save_value(*archive, values.text);
    save_value(*archive, values.yes);
    save_value(*archive, values.number);
    save_value(*archive, values.large);
    save_value(*archive, values.state);
    factory.destroyOarchive(archive);
    EXPECT_EQ(archive, nullptr);
}

Values read_own(std::wstringstream &stream) {
    SerializationFactory factory;
    InArchive *archive = nullptr;
    factory.createIarchive(stream, archive);
    Values values = kEmptied;
    values.type = load_type(*archive);
    load_value(*archive, values.text);
    load_value(*archive, values.yes);
    load_value(*archive, values.number);
    load_value(*archive, values.large);
    load_value(*archive, values.state);
    factory.destroyIarchive(archive);
    EXPECT_EQ(archive, nullptr);
    return values;
}

void write_library(std::wstringstream &stream) {
    polymorphic_text_woarchive made(stream);
    OutArchive &archive = made;
    const Values values;
    archive << values.type << values.text << values.yes << values.number << values.large
            << values.state;
}

Values read_library(std::wstringstream &stream) {
    polymorphic_text_wiarchive made(stream);
    InArchive &archive = made;
    Values values = kEmptied;
    archive >> values.type >> values.text >> values.yes >> values.number >> values.large >>
        values.state;
    return values;
}

TEST(Serialization, TheCharactersAreTheLibrarys) {
    std::wstringstream own, library;
    write_own(own);
    write_library(library);
    EXPECT_TRUE(own.str() == library.str());
}

// The stream that was written to is the one that is read, without a seek in between.
TEST(Serialization, EachReadsWhatTheOtherWrites) {
    for (const auto write : {write_own, write_library}) {
        for (const auto read : {read_own, read_library}) {
            std::wstringstream stream;
            write(stream);
            EXPECT_TRUE(read(stream) == Values());
        }
    }
}

TEST(Serialization, AnArchiveFollowsWhatWasReadBefore) {
    std::wstringstream stream;
    stream << L"before ";
    write_own(stream);
    std::wstring before;
    stream >> before;
    EXPECT_TRUE(read_own(stream) == Values());
}

TEST(Serialization, TheModeIsWhatWasSet) {
    SerializationFactory factory;
    factory.setArchiveMode(1);
    EXPECT_EQ(factory.getArchiveMode(), 1);
    OutArchive *no_output = nullptr;
    InArchive *no_input = nullptr;
    factory.destroyOarchive(no_output);
    factory.destroyIarchive(no_input);
    EXPECT_EQ(no_output, nullptr);
    EXPECT_EQ(no_input, nullptr);
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
