// Parameters: every carried type there and back, and the encoding as Boost's format has it.
#include "lpc/parameter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tests/lpc/loaded_runtime.h"
#include "tests/lpc/log_capture.h"

namespace velmor_com::NQ::LPC {
namespace {

using namespace manageability;
using cmx::updater::tag_PRODUCT_RETURN_VALUE;
using cmx::updater::tag_UPDATE_STATE;

std::string encoded(Parameter *parameter) {
    std::string bytes(parameter->getSize(), '\0');
    EXPECT_TRUE(parameter->read(bytes.data(), bytes.size()));
    return bytes;
}

// The archive without its header, whose last number is the release of Boost.
std::wstring body(Parameter *parameter) {
    const std::string bytes = encoded(parameter);
    const std::wstring text(reinterpret_cast<const wchar_t *>(bytes.data()), bytes.size() / 4);
    const std::wstring header = L"22 serialization::archive ";
    EXPECT_EQ(text.substr(0, header.size()), header);
    return text.substr(text.find(L' ', header.size()));
}

template <class T>
T there_and_back(const T &value, Param_Type type = ptArgument) {
    const ParameterRef sent(new Parameter(value, type));
    const std::string bytes = encoded(sent.operator->());
    const ParameterRef received(new Parameter(bytes.data(), bytes.size()));
    EXPECT_EQ(received->getType(), type);
    EXPECT_EQ(received->getSize(), bytes.size());
    T result{};
    received->get(result);
    return result;
}

TEST(Parameter, ScalarsThereAndBack) {
    EXPECT_TRUE(there_and_back(true));
    EXPECT_FALSE(there_and_back(false));
    for (int value : {0, 1, -1, 2147483647, -2147483647 - 1})
        EXPECT_EQ(there_and_back(value), value);
    for (unsigned long value : {0ul, 1ul, ~0ul}) EXPECT_EQ(there_and_back(value), value);
    for (LogonState value : {UBPNOTLOGGEDON, UBPLOGON, UBPLOGGEDON, UBPLOGOFF})
        EXPECT_EQ(there_and_back(value), value);
    for (int value : {0, 1, 77}) {
        EXPECT_EQ(there_and_back(static_cast<tag_UPDATE_STATE>(value)), value);
        EXPECT_EQ(there_and_back(static_cast<tag_PRODUCT_RETURN_VALUE>(value)), value);
    }
}

TEST(Parameter, EveryRoleThereAndBack) {
    for (int role = ptReturnValue; role <= ptNotificationId; role++)
        EXPECT_EQ(there_and_back(5, static_cast<Param_Type>(role)), 5);
}

TEST(Parameter, TextThereAndBack) {
    for (const std::wstring &text :
         {std::wstring(), std::wstring(L" "), std::wstring(L"a b\n\t7 "), std::wstring(L"a\0b", 3),
          std::wstring(L"\u00e4\u20ac\U0001f600"), std::wstring(1, static_cast<wchar_t>(-1)),
          std::wstring(size_t{1} << 20, L'x')})
        EXPECT_TRUE(there_and_back(text) == text);
}

TEST(Parameter, SectionsThereAndBack) {
    Lpc_MultipleSectionsHandle sections;
    sections.add(Lpc_OneSectionHandle(L"empty"));
    sections.insert(L"two", L"k", L"v");
    sections.insert(L"two", L"", L"");
    const auto back = there_and_back(sections);
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(back[0].getName(), L"empty");
    EXPECT_EQ(back[0].size(), 0u);
    std::wstring name, value;
    ASSERT_TRUE(back[1].getSettingByIndex(0, name, value));
    EXPECT_EQ(name + value, L"kv");
    EXPECT_EQ(there_and_back(sections[1]).size(), 2u);
}

TEST(Parameter, PoliciesThereAndBack) {
    Lpc_PolicySettingObjectContainer settings;
    settings.add({L"setting", -7, L"text"});
    settings.add({});
    Lpc_PolicyObjectContainer objects;
    objects.add({L"feature", L"category", L"type", L"name", settings});
    objects.add({});
    const auto back = there_and_back(objects);
    ASSERT_EQ(back.size(), 2u);
    std::wstring feature, category, type, name, str_param;
    int int_param = 0;
    back[0].getAttributes(feature, category, type, name);
    EXPECT_EQ(feature + category + type + name, L"featurecategorytypename");
    ASSERT_EQ(back[0].getPolicySettingObjectContainer().size(), 2u);
    back[0].getPolicySettingObjectContainer()[0].getAttributes(name, int_param, str_param);
    EXPECT_EQ(name + str_param, L"settingtext");
    EXPECT_EQ(int_param, -7);
    EXPECT_EQ(back[1].getPolicySettingObjectContainer().size(), 0u);
}

TEST(Parameter, TheRoleStandsInFrontOfTheValue) {
    const ParameterRef yes(new Parameter(true, ptReturnValue));
    EXPECT_EQ(body(yes.operator->()), L" 1 1\n");
    const ParameterRef number(new Parameter(-5, ptArgument));
    EXPECT_EQ(body(number.operator->()), L" 2 -5\n");
    const ParameterRef text(new Parameter(std::wstring(L"a b"), ptMethod));
    EXPECT_EQ(body(text.operator->()), L" 5 3 a b\n");
    Lpc_MultipleSectionsHandle sections;
    sections.insert(L"S", L"k", L"v1");
    const ParameterRef list(new Parameter(sections, ptArgument));
    EXPECT_EQ(body(list.operator->()), L" 2 1 1 S 1 1 k 2 v1\n");
}

TEST(Parameter, IsReadAsOftenAsWanted) {
    const ParameterRef parameter(new Parameter(7, ptArgument));
    for (int i = 0; i < 3; i++) {
        int value = 0;
        parameter->get(value);
        EXPECT_EQ(value, 7);
    }
    char small[4];
    EXPECT_FALSE(parameter->read(small, sizeof(small)));
}

TEST(Parameter, OnlyAReturnValueIsAResult) {
    int value = 0;
    const ParameterRef result(new Parameter(7, ptReturnValue));
    result->getResult(value);
    EXPECT_EQ(value, 7);
    const ParameterRef argument(new Parameter(8, ptArgument));
    EXPECT_THROW(argument->getResult(value), LPCError);
    EXPECT_EQ(value, 7);
}

// The value that this end decodes from an archive of a Boost `newer` versions away from its own.
int of_another_release(int newer) {
    const ParameterRef own(new Parameter(5, ptArgument));
    const std::string bytes = encoded(own.operator->());
    std::wstring text(reinterpret_cast<const wchar_t *>(bytes.data()), bytes.size() / 4);
    const size_t at = text.find(L"archive ") + 8, end = text.find(L' ', at);
    text.replace(at, end - at, std::to_wstring(std::stoi(text.substr(at, end - at)) + newer));
    const ParameterRef received(new Parameter(text.data(), text.size() * 4));
    int value = 0;
    received->get(value);
    return value;
}

TEST(Parameter, ArchivesOfOlderReleasesAreReadAndNewerOnesRefused) {
    EXPECT_EQ(of_another_release(0), 5);
    EXPECT_EQ(of_another_release(-1), 5);
    EXPECT_EQ(of_another_release(-6), 5);
    LogCapture log;
    EXPECT_THROW(of_another_release(1), SerializationError);
    EXPECT_TRUE(log.has(kErrorLine, L"unsupported version"));
}

TEST(Parameter, LivesUntilItsLastReference) {
    auto *parameter = new Parameter(1, ptArgument);
    parameter->addRef();
    parameter->releaseRef();
    EXPECT_GT(parameter->getSize(), 0u);
    parameter->releaseRef();
}

template <class Act>
std::string failure(ArchiveFault fault, Act act) {
    archive_fault = fault;
    std::string text = "no failure";
    try {
        act();
    } catch (const LPCError &error) {
        EXPECT_EQ(error.code(), ecPackageError);
        text = error.what();
    }
    archive_fault = ArchiveFault::kNone;
    return text;
}

TEST(Parameter, FailuresHaveTheirTexts) {
    LogCapture log;
    const ParameterRef good(new Parameter(1, ptArgument));
    const std::string bytes = encoded(good.operator->());
    const auto encode = [] { new Parameter(1, ptArgument); };
    const auto decode = [&] { new Parameter(bytes.data(), bytes.size()); };
    const auto known = ArchiveFault::kKnown, unknown = ArchiveFault::kUnknown;
    EXPECT_EQ(failure(known, encode), "Error occured during serialization");
    EXPECT_EQ(failure(known, decode), "Error occured during deserialization");
    EXPECT_EQ(failure(unknown, encode), "Unknown error occured during serialization");
    EXPECT_EQ(failure(unknown, decode), "Unknown error occured during deserialization");
    EXPECT_EQ(log.all(), (std::vector<LogCapture::Line>{
                             {kErrorLine, L"the archive's own words"},
                             {kErrorLine, L"the archive's own words"},
                             {kErrorLine, L"Unknown exception caught during serialization"},
                             {kErrorLine, L"Unknown exception caught during deserialization"}}));
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
