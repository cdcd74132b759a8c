// Without a runtime everything above the loader fails in an orderly way.
#include <gtest/gtest.h>

#include "lpc/cross_objects.h"
#include "lpc/service_controller.h"
#include "tests/lpc/log_capture.h"
#include "tests/lpc/test_services.h"

namespace velmor_com::NQ::LPC {
namespace {

TEST(Unloaded, AServiceCannotBeRun) {
    LogCapture log;
    TestProperties servant;
    EXPECT_FALSE(LPCServiceController<TestProperties>::runService(&servant));
    EXPECT_EQ(log.all(),
              (std::vector<LogCapture::Line>{{kErrorLine,
                                              L"Unable to access LPC repository, please check LPC "
                                              L"runtime"}}));
}

TEST(Unloaded, NoObjectOfThisProcess) {
    LogCapture log;
    LPCFactory::instance()->configure("P");
    registerInterface<Adaptor_InProc_IPropertyCollection>("I");
    EXPECT_EQ(LPCFactory::instance()->createInstance("I", "P"), nullptr);
    EXPECT_EQ(log.all(),
              (std::vector<LogCapture::Line>{{kErrorLine, L"Faild to get LPC repository"}}));
}

TEST(Unloaded, NoCallAndNoParameter) {
    IPropertyCollection_Client_Impl client("P");
    EXPECT_THROW(client.isRunning(), LPCError);
    EXPECT_THROW(new Parameter(1, ptArgument), LPCError);
}

TEST(Unloaded, TheRuntimeControlIsMadeAndDeleted) {
    ServicesCrossObjectFactory *factory = ServicesCrossObjectFactory::instance();
    static int reloads;
    ServicesCrossObjectFactory::setReload([] { reloads++; });
    IVlrLpcServicesObject *object =
        factory->createObject(ServicesCrossObjectFactory::kRuntimeControl);
    auto *control = dynamic_cast<IVlrLpcRuntimeControl *>(object);
    ASSERT_NE(control, nullptr);
    control->reload();
    EXPECT_EQ(reloads, 1);
    factory->destroyObject(object);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(factory->createObject(77, nullptr), nullptr);
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
