// The containers that calls carry, and the narrow and wide text of identifiers.
#include "lpc/values.h"

#include <gtest/gtest.h>

#include "lpc/wide_text.h"

namespace velmor_com::NQ {
namespace {

using namespace manageability;

TEST(Values, ASettingKeepsItsFirstValue) {
    Lpc_OneSectionHandle section(L"S");
    EXPECT_TRUE(section.insert(L"b", L"1"));
    EXPECT_TRUE(section.insert(L"a", L"2"));
    EXPECT_FALSE(section.insert(L"b", L"3"));
    EXPECT_EQ(section.size(), 2u);
    std::wstring name, value;
    ASSERT_TRUE(section.getSettingByIndex(0, name, value));
    EXPECT_EQ(name + L"=" + value, L"b=1");
    ASSERT_TRUE(section.getSettingByIndex(1, name, value));
    EXPECT_EQ(name + L"=" + value, L"a=2");
    EXPECT_FALSE(section.getSettingByIndex(2, name, value));
    EXPECT_EQ(name + L"=" + value, L"a=2");
}

TEST(Values, ASectionIsMadeOnFirstUse) {
    Lpc_MultipleSectionsHandle sections;
    EXPECT_TRUE(sections.insert(L"One", L"k", L"v"));
    EXPECT_TRUE(sections.insert(L"Two", L"k", L"v"));
    EXPECT_FALSE(sections.insert(L"One", L"k", L"other"));
    EXPECT_TRUE(sections.insert(L"One", L"l", L"v"));
    ASSERT_EQ(sections.size(), 2u);
    EXPECT_EQ(sections[0].getName(), L"One");
    EXPECT_EQ(sections[0].size(), 2u);
    EXPECT_EQ(sections[1].getName(), L"Two");
}

TEST(Values, BytesThatDoNotDecodeKeepTheirNumber) {
    EXPECT_EQ(LPC::widen_text("a:b"), L"a:b");
    EXPECT_EQ(LPC::widen_text("\xff\xfe"), L"\xff\xfe");
    EXPECT_EQ(LPC::widen_text(std::string("a\0b", 3)), std::wstring(L"a\0b", 3));
    EXPECT_EQ(LPC::narrow_text(L"a\u00e4\u20ac"), "a\xe4?");
    EXPECT_EQ(LPC::narrow_text(std::wstring(1, static_cast<wchar_t>(-1))), "?");
}

}  // namespace
}  // namespace velmor_com::NQ
