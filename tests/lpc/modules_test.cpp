// Under which module each failure of the framework is logged, in a process without a runtime.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "lpc/dylib_manager.h"
#include "lpc/process_id.h"
#include "lpc/service_controller.h"
#include "tests/lpc/test_services.h"

namespace velmor_com::NQ::LPC {
namespace {

using Services::LPCLogger;

std::vector<std::wstring> errors;

void take_error(const wchar_t *module, const wchar_t *message) {
    errors.push_back(std::wstring(module) + L"|" + message);
}

class Modules : public testing::Test {
  protected:
    void SetUp() override {
        errors.clear();
        LPCLogger::getLogger()->registerLogErrorMethod(take_error);
    }
    void TearDown() override { LPCLogger::getLogger()->registerLogErrorMethod(nullptr); }
};

using Client = StdFactory<IPropertyCollection_Client_Impl>;
using Servants = StdFactory2<Adaptor_InProc_IPropertyCollection>;

TEST_F(Modules, EachFailureHasItsOwn) {
    std::string id;
    VlrLpcCallbacks *callbacks = nullptr;
    ISerializationFactory *factory = nullptr;
    LPCDylibManager manager("/nonexistent");
    TestProperties servant;
    LPCFactory::instance()->configure("P");
    registerInterface<Adaptor_InProc_IPropertyCollection>("IModules");
    const struct {
        std::function<void()> act;
        const wchar_t *line;
    } rows[] = {
        {[&] { generateLPCProcessUID("", "t", id); }, L"Helper|Invalid argument"},
        {[&] { generateLPCProcessUID(std::string(50, 'b'), "t", id); },
         L"Helper|LPC process ID exceeds max ID length"},
        {[&] { manager.initialize("p", L"/t", callbacks, factory); },
         L"LPCDLLManager|Invalid argument"},
        {[&] { manager.loadVlrLpcDll(false); },
         L"LPCDLLManager|Unable to find LPC runtime location"},
        {[] { LPCFactory::instance()->createInstance("INever", "P"); },
         L"LPC|Unregistered interface"},
        {[] { LPCFactory::instance()->createInstance("IModules", "P"); },
         L"LPC|Faild to get LPC repository"},
        {[] { registerInFactory(nullptr, nullptr, true); }, L"LPC|Invalid argument"},
        {[] { configureLPCFactory(nullptr); }, L"LPC|Invalid argument"},
        {[] { Client().createObject(nullptr); }, L"LPCUtilityAPI|Invalid arguments"},
        {[] { Servants().createObject(nullptr, nullptr); }, L"LPCUtilityAPI|Invalid arguments"},
        {[] { LPCServiceController<TestProperties>::runService(nullptr); },
         L"LPCUtilityAPI|Invalid service"},
        {[&] { LPCServiceController<TestProperties>::runService(&servant); },
         L"LPCUtilityAPI|Unable to access LPC repository, please check LPC runtime"},
    };
    for (const auto &row : rows) {
        errors.clear();
        row.act();
        EXPECT_EQ(errors, std::vector<std::wstring>{row.line});
    }
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
