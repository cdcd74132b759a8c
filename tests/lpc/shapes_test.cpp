// The shapes of an interface at work: calls through a real connection, and calls in the process.
#include "lpc/shapes.h"

#include <gtest/gtest.h>

#include "lpc/service_controller.h"
#include "tests/lpc/loaded_runtime.h"
#include "tests/lpc/log_capture.h"
#include "tests/lpc/test_services.h"

namespace velmor_com::NQ::LPC {
namespace {

template <class T>
void publish() {
    auto servant = std::make_unique<T>();
    ASSERT_TRUE(LPCServiceController<T>::runService(servant.get()));
    static_cast<void>(servant.release());
}

LPCErrorCode code_of(const std::function<void()> &act) {
    try {
        act();
    } catch (const LPCError &error) {
        return error.code();
    }
    ADD_FAILURE() << "no failure";
    return ecPackageError;
}

class Shapes : public testing::Test {
  protected:
    void SetUp() override {
        publish<TestProperties>();
        publish<TestEnforcement>();
        registerInterface<IPolicyDataAccessor_Client_Impl>("IPolicyDataAccessor");
        registerInterface<Adaptor_InProc_IPolicyDataAccessor>("IPolicyDataAccessor");
    }
    LogCapture log;
};

TEST_F(Shapes, OperationsHaveTheirNames) {
    using Enforcement = IPolicyEnforcement;
    EXPECT_STREQ(operation_name<IPropertyCollection>(&ILPCInterface::isRunning), "isRunning");
    EXPECT_STREQ(operation_name<IPropertyCollection>(&ILPCInterface::abort), "abort");
    EXPECT_STREQ(operation_name<IPropertyCollection>(&IPropertyCollection::collectProperties),
                 "collectProperties");
    EXPECT_STREQ(operation_name<Enforcement>(Enforcement::ForMachine{&Enforcement::enforcePolicy}),
                 "enforcePolicy");
    EXPECT_STREQ(operation_name<Enforcement>(Enforcement::ForUser{&Enforcement::enforcePolicy}),
                 "enforceUserPolicy");
    EXPECT_STREQ(operation_name<Enforcement>(&Enforcement::setOperationTimeout), "");
}

TEST_F(Shapes, AServantKnowsItsNameAndProcess) {
    TestProperties servant;
    EXPECT_EQ(servant.getInterfaceId(), "IPropertyCollection");
    EXPECT_EQ(servant.getImplementationProvider(), kOwnId);
}

TEST_F(Shapes, ACallCrossesTheConnection) {
    IPropertyCollection_Client_Impl client(kOwnId);
    EXPECT_EQ(client.getImplementationProvider(), kOwnId);
    EXPECT_TRUE(client.isSoftwareExists(L"known"));
    EXPECT_FALSE(client.isSoftwareExists(L"unknown"));
    EXPECT_TRUE(client.isRunning());
    EXPECT_FALSE(client.abort());
    manageability::Lpc_MultipleSectionsHandle sections;
    sections.insert(L"Mine", L"k", L"v");
    EXPECT_TRUE(client.collectProperties(true, sections));
    ASSERT_EQ(sections.size(), 2u);  // what went in came back with the rest
    EXPECT_EQ(sections[0].getName(), L"Mine");
    EXPECT_EQ(sections[1].getName(), L"Answer");
}

TEST_F(Shapes, AnExceptionOfTheServantIsAnApplicationError) {
    IPropertyCollection_Client_Impl client(kOwnId);
    EXPECT_EQ(code_of([&] { client.isSoftwareExists(L"throw"); }), ecApplicationError);
    EXPECT_TRUE(log.has(kErrorLine, L"from the servant"));
    EXPECT_TRUE(client.isSoftwareExists(L"known"));
}

TEST_F(Shapes, AnInterfaceTravelsAsAReference) {
    TestAccessor accessor;
    publish<TestAccessor>();
    IPolicyEnforcement_Client_Impl client(kOwnId);
    client.setOperationTimeout(60);
    EXPECT_TRUE(client.enforcePolicy(L"soft", &accessor));
    EXPECT_EQ(TestEnforcement::last, L"machine soft featurect n-3 text");
    EXPECT_FALSE(client.enforcePolicy(L"soft", nullptr));
    EXPECT_EQ(TestEnforcement::last, L"machine soft");
    EXPECT_TRUE(client.enforcePolicy(L"s", L"u", L"d", 9, manageability::UBPLOGOFF, &accessor));
    EXPECT_EQ(TestEnforcement::last, L"user sud93+");
    EXPECT_TRUE(client.enforcePolicy(L"s", L"u", L"d", 9, manageability::UBPLOGON, nullptr));
    EXPECT_EQ(TestEnforcement::last, L"user sud91-");
}

TEST_F(Shapes, CallsToNobodyFail) {
    updater::IUpdateCallback_Client_Impl no_service(kOwnId);
    std::wstring value = L"old";
    EXPECT_EQ(code_of([&] { no_service.GetProductInfo(L"s", L"n", value); }),
              ecServiceNotAvailable);
    EXPECT_EQ(value, L"old");
    IPropertyCollection_Client_Impl no_process("LOGRELAY1000:9999999:0001");
    EXPECT_EQ(code_of([&] { no_process.isRunning(); }), ecPPProcessNotFound);
}

TEST_F(Shapes, UnknownMethodsAreLogicErrors) {
    const auto encode = [](const wchar_t *text) {
        return wire_bytes(L"22 serialization::archive 18 " + std::wstring(text));
    };
    Adaptor_IPropertyCollection adaptor(new TestProperties);
    MemoryConnector unknown;
    unknown.in = {encode(L"3 1 p"), encode(L"4 19 IPropertyCollection"), encode(L"5 2 no")};
    EXPECT_EQ(adaptor.dispatch(&unknown), ecLogicError);
    MemoryConnector short_of_arguments;
    short_of_arguments.in = {encode(L"3 1 p"), encode(L"4 19 IPropertyCollection"),
                             encode(L"5 16 isSoftwareExists")};
    EXPECT_EQ(adaptor.dispatch(&short_of_arguments), ecProtocolError);
    MemoryConnector garbage;
    garbage.in = {"abc"};
    EXPECT_EQ(adaptor.dispatch(&garbage), ecPackageError);
    EXPECT_TRUE(unknown.out.empty() && short_of_arguments.out.empty() && garbage.out.empty());
}

TEST_F(Shapes, InTheProcessTheServantIsCalledDirectly) {
    Adaptor_IPropertyCollection adaptor(new TestProperties);
    Adaptor_InProc_IPropertyCollection object(&adaptor, kOwnId);
    EXPECT_EQ(object.getInterfaceId(), "IPropertyCollection");
    EXPECT_EQ(object.getImplementationProvider(), kOwnId);
    EXPECT_TRUE(object.isRunning());
    EXPECT_FALSE(object.abort());
    EXPECT_TRUE(object.isSoftwareExists(L"known"));
    EXPECT_THROW(object.isSoftwareExists(L"throw"), std::runtime_error);
    manageability::Lpc_MultipleSectionsHandle sections;
    EXPECT_TRUE(object.collectProperties(false, sections));
    EXPECT_EQ(sections.size(), 1u);
    Adaptor<IPolicyDataAccessor> other(new TestAccessor);
    Adaptor_InProc_IPropertyCollection wrong(&other, kOwnId);
    EXPECT_EQ(code_of([&] { wrong.isRunning(); }), ecServiceNotAvailable);
}

TEST_F(Shapes, OnlyAServantCanBeRun) {
    EXPECT_FALSE(LPCServiceController<TestProperties>::runService(nullptr));
    EXPECT_EQ(log.all(), (std::vector<LogCapture::Line>{{kErrorLine, L"Invalid service"}}));
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
