// What the agent's libraries were compiled against: the order of the virtual operations, where one
// that moves would be called in the place of another, and the numbers of the enumerations.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "lpc/cross_objects.h"
#include "lpc/factory.h"
#include "lpc/interfaces/IPolicyDataAccessor.h"
#include "lpc/interfaces/IPolicyEnforcement.h"
#include "lpc/interfaces/IPropertyCollection.h"
#include "lpc/interfaces/IUpdateCallback.h"
#include "lpc/serialization.h"

namespace velmor_com::NQ::LPC {
namespace {

// A pointer to a virtual member holds the offset of its slot; its lowest bit may be a mark.
template <class Member>
uintptr_t slot(Member member) {
    uintptr_t words[2];
    static_assert(sizeof(member) == sizeof(words));
    memcpy(words, &member, sizeof(words));
    return (words[0] & ~uintptr_t{1}) / sizeof(void *);
}

// The first two slots are the two kinds of destructor.
void expect_from(uintptr_t next, std::initializer_list<uintptr_t> slots) {
    for (const uintptr_t found : slots) EXPECT_EQ(found, next++);
}

TEST(Slots, TheRootAndTheInterfaces) {
    using I = ILPCInterface;
    expect_from(2, {slot(&I::getInterfaceId), slot(&I::getImplementationProvider),
                    slot(&I::isRunning), slot(&I::abort)});
    using P = IPropertyCollection;
    expect_from(6, {slot(&P::isSoftwareExists), slot(&P::collectProperties)});
    using U = updater::IUpdateCallback;
    expect_from(6, {slot(&U::UpdateNotify), slot(&U::GetProductInfo), slot(&U::SetProductInfo)});
    using E = IPolicyEnforcement;
    expect_from(6, {slot(&E::setOperationTimeout), slot(E::ForMachine{&E::enforcePolicy}),
                    slot(E::ForUser{&E::enforcePolicy})});
    using A = IPolicyDataAccessor;
    expect_from(6, {slot(&A::setOperationTimeout), slot(&A::getPolicyObjectContainer),
                    slot(&A::getAllPolicySections)});
}

TEST(Slots, TheFactories) {
    using F = ILPCFactory;
    using OfProvider = ILPCInterface *(F::*)(const char *);
    using OfAdaptor = ILPCInterface *(F::*)(IServiceAdaptor *, const char *);
    expect_from(2, {slot(OfProvider{&F::createObject}), slot(OfAdaptor{&F::createObject})});
    using C = ServicesCrossObjectFactory;
    using OfKind = IVlrLpcServicesObject *(C::*)(unsigned);
    using OfKindAndArgument = IVlrLpcServicesObject *(C::*)(unsigned, void *);
    expect_from(2, {slot(OfKind{&C::createObject}), slot(OfKindAndArgument{&C::createObject}),
                    slot(&C::destroyObject)});
    using S = SerializationFactory;
    expect_from(2, {slot(&S::getArchiveMode), slot(&S::getVersion), slot(&S::setArchiveMode),
                    slot(&S::createOarchive), slot(&S::createIarchive), slot(&S::destroyOarchive),
                    slot(&S::destroyIarchive)});
}

// Each list is in order and without a gap, so its place is its number.
void expect_numbers(int first, std::initializer_list<int> values) {
    for (const int value : values) EXPECT_EQ(value, first++);
}

TEST(Numbers, OfTheEnumerations) {
    expect_numbers(1, {ptReturnValue, ptArgument, ptNamespace, ptService, ptMethod, ptAsyncResultId,
                       ptNotificationId});
    expect_numbers(0, {ecPackageError, ecLogicError, ecProtocolError, ecApplicationError,
                       ecOperationTimedout, ecCommunicationError, ecRoutingError,
                       ecRoutingErrorStalePPInfoError, ecIPCError, ecAuthenticationError,
                       ecPPProcessNotFound, ecVlrLPCAccessError, ecServiceNotAvailable});
    using namespace manageability;
    expect_numbers(0, {UBPNOTLOGGEDON, UBPLOGON, UBPLOGGEDON, UBPLOGOFF});
}

// Decided when the framework is compiled.
static_assert(CheckLPCInterface<ILPCInterface>::value);
static_assert(CheckLPCInterface<IPolicyDataAccessor *>::value);
static_assert(CheckLPCInterface<const IPropertyCollection &>::value);
static_assert(CheckLPCInterface<updater::IUpdateCallback_S>::value);
static_assert(!CheckLPCInterface<int>::value && !CheckLPCInterface<std::wstring>::value);
static_assert(!CheckLPCInterface<manageability::Lpc_MultipleSectionsHandle &>::value);
static_assert(!CheckLPCInterface<ILPCFactory>::value);

TEST(Numbers, PointersInTheirOrder) {
    EXPECT_EQ(offsetof(VlrLpcCallbacks, validationCallback_), 0u);
    EXPECT_EQ(offsetof(VlrLpcCallbacks, vlrlpcInstalledCallBack_), sizeof(void *));
    EXPECT_EQ(offsetof(VlrLpcCallbacks, vlrlpcUnInstalledCallBack_), 2 * sizeof(void *));
    EXPECT_EQ(offsetof(ClientServantPair, client), 0u);
    EXPECT_EQ(offsetof(ClientServantPair, servant), sizeof(void *));
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
