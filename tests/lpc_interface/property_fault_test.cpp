// The property collection while the reading of the configuration fails in ways that the real one
// does not know: this program brings a reader of its own.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "config/conf.h"
#include "lpc_interface/IPropertyCollection_Servant_Impl.h"
#include "tests/lpc_interface/kit.h"

namespace {

std::function<void()> fault;

}  // namespace

int conf_parse_key_value_pair(const char *, key_value_pair_spec **spec, int) {
    *spec = nullptr;
    fault();
    return 1;
}

void conf_teardown_key_value_pair(key_value_pair_spec *) {
}

wchar_t *widen(const char *) {
    return nullptr;
}

namespace velmor_com::NQ::LPC {
namespace {

TEST(PropertyFault, WhateverIsThrownTheCollectionSucceeds) {
    const struct {
        std::function<void()> fault;
        const char *line;
    } rows[] = {
        {[] { throw std::runtime_error("no more"); },
         "(INFO) Exception in Property Collection: no more\n"},
        {[] { throw "a word"; }, "(INFO) Exeception in Property Collection: a word\n"},
        {[] { throw std::string("words"); }, "(INFO) Exeception in Property Collection: words\n"},
        {[] { throw 7; }, "(INFO) Unexpected exception in Property Collection\n"},
        {[] {}, ""},
    };
    for (const auto &row : rows) {
        fault = row.fault;
        IPropertyCollection_Servant_Impl servant;
        manageability::Lpc_MultipleSectionsHandle sections;
        EXPECT_EQ(logged([&] { EXPECT_TRUE(servant.collectProperties(true, sections)); }),
                  std::string("(INFO) IPropertyCollection_Servant_Impl::collectProperties method "
                              "getting called\n") +
                      row.line + "(INFO) Properties Collection completed successfully\n");
        // What was there before the fault stays.
        ASSERT_EQ(sections.size(), 1u);
        EXPECT_EQ(sections[0].getName(), L"General");
        EXPECT_EQ(sections[0].size(), 2u);
    }
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
