// The registry: which factory makes the object for an interface of a process.
#include "lpc/factory.h"

#include <gtest/gtest.h>

#include "lpc/service_controller.h"
#include "tests/lpc/loaded_runtime.h"
#include "tests/lpc/log_capture.h"
#include "tests/lpc/test_services.h"

namespace velmor_com::NQ::LPC {

// Objects for which there is no memory, or none for what they hold.
class NoRoom : public IPropertyCollection_Client_Impl {
  public:
    explicit NoRoom(const char *provider) : IPropertyCollection_Client_Impl(provider) {}
    NoRoom(IServiceAdaptor *, const char *provider) : NoRoom(provider) {}
    static void *operator new(size_t, const std::nothrow_t &) noexcept { return nullptr; }
    static void operator delete(void *object) { ::operator delete(object); }
};

class NoRoomInside : public IPropertyCollection_Client_Impl {
  public:
    explicit NoRoomInside(const char *provider) : IPropertyCollection_Client_Impl(provider) {
        throw std::bad_alloc();
    }
    NoRoomInside(IServiceAdaptor *, const char *provider) : NoRoomInside(provider) {}
};

struct IUnpublished : public ILPCInterface {
    static constexpr char kInterfaceId[] = "IUnpublished";
};

struct Unpublished : public Servant<IUnpublished> {
    bool isRunning() override { return false; }
    bool abort() override { return false; }
};

template <>
class Adaptor<IUnpublished> : public IServiceAdaptor {
  public:
    explicit Adaptor(IUnpublished *) {}
    static void *operator new(size_t, const std::nothrow_t &) noexcept { return nullptr; }
    static void operator delete(void *object) { ::operator delete(object); }
    int dispatch(IObjectConnector *) override { return 0; }
};

namespace {

using Object = std::unique_ptr<ILPCInterface>;

Object create(const char *id, const char *provider) {
    return Object(LPCFactory::instance()->createInstance(id, provider));
}

class RenamedProperties : public TestProperties {
  public:
    std::string getInterfaceId() override { return "IRenamed"; }
};

TEST(Factory, UnregisteredInterfacesAreUnknown) {
    LogCapture log;
    EXPECT_EQ(create("INever", "P"), nullptr);
    EXPECT_EQ(log.all(), (std::vector<LogCapture::Line>{{kErrorLine, L"Unregistered interface"}}));
}

TEST(Factory, ClientAndServantStandSideBySide) {
    LogCapture log;
    ASSERT_TRUE(registerInterface<IPropertyCollection_Client_Impl>("IRenamed"));
    EXPECT_EQ(create("IRenamed", kOwnId), nullptr);
    EXPECT_EQ(log.all(),
              (std::vector<LogCapture::Line>{{kErrorLine, L"Service is not available"}}));
    ASSERT_TRUE(registerInterface<Adaptor_InProc_IPropertyCollection>("IRenamed"));
    EXPECT_EQ(create("IRenamed", kOwnId), nullptr);  // still nobody provides it

    Object remote = create("IRenamed", "P:other:0001");
    EXPECT_NE(dynamic_cast<IPropertyCollection_Client_Impl *>(remote.get()), nullptr);
    EXPECT_EQ(remote->getImplementationProvider(), "P:other:0001");

    ASSERT_TRUE(LPCServiceController<RenamedProperties>::runService(new RenamedProperties));
    Object own = create("IRenamed", kOwnId);
    auto *direct = dynamic_cast<Adaptor_InProc_IPropertyCollection *>(own.get());
    ASSERT_NE(direct, nullptr);
    EXPECT_TRUE(direct->isSoftwareExists(L"known"));
}

TEST(Factory, AMissingSideMakesNothing) {
    ASSERT_TRUE(registerInterface<Adaptor_InProc_IPropertyCollection>("IServantOnly"));
    EXPECT_EQ(create("IServantOnly", "P:other:0001"), nullptr);
}

TEST(Factory, ArgumentsAreChecked) {
    LogCapture log;
    StdFactory<IPropertyCollection_Client_Impl> client;
    EXPECT_FALSE(registerInFactory(nullptr, &client, false));
    EXPECT_FALSE(registerInFactory("I", nullptr, false));
    configureLPCFactory(nullptr);
    EXPECT_EQ(log.all(), (std::vector<LogCapture::Line>(3, {kErrorLine, L"Invalid argument"})));
    EXPECT_EQ(LPCFactory::instance()->processIdentifier(), kOwnId);
}

TEST(Factory, EachFactoryMakesItsKindOnly) {
    LogCapture log;
    StdFactory<IPropertyCollection_Client_Impl> client;
    StdFactory2<Adaptor_InProc_IPropertyCollection> servant;
    Adaptor_IPropertyCollection adaptor(new TestProperties);
    EXPECT_EQ(client.createObject(&adaptor, "P"), nullptr);
    EXPECT_EQ(servant.createObject("P"), nullptr);
    EXPECT_TRUE(log.all().empty());
    EXPECT_EQ(client.createObject(nullptr), nullptr);
    EXPECT_EQ(servant.createObject(nullptr, "P"), nullptr);
    EXPECT_EQ(servant.createObject(&adaptor, nullptr), nullptr);
    EXPECT_EQ(log.all(), (std::vector<LogCapture::Line>(3, {kErrorLine, L"Invalid arguments"})));
    const Object made(servant.createObject(&adaptor, "P"));
    EXPECT_NE(made, nullptr);
}

TEST(Factory, AShortMemoryIsAnErrorLineAndNothing) {
    LogCapture log;
    Adaptor_IPropertyCollection adaptor(new TestProperties);
    EXPECT_EQ(StdFactory<NoRoom>().createObject("P"), nullptr);
    EXPECT_EQ(StdFactory2<NoRoom>().createObject(&adaptor, "P"), nullptr);
    EXPECT_EQ(StdFactory<NoRoomInside>().createObject("P"), nullptr);
    EXPECT_EQ(StdFactory2<NoRoomInside>().createObject(&adaptor, "P"), nullptr);
    Unpublished servant;
    EXPECT_FALSE(LPCServiceController<Unpublished>::runService(&servant));
    EXPECT_EQ(log.all(),
              (std::vector<LogCapture::Line>(5, {kErrorLine, L"Memory allocation failure"})));
    EXPECT_EQ(create("IUnpublished", kOwnId), nullptr);
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
