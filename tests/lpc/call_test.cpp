// Call descriptors: the layout of a call and of its answer, and the classes of failure.
#include "lpc/call.h"

#include <gtest/gtest.h>

#include "tests/lpc/loaded_runtime.h"
#include "tests/lpc/log_capture.h"

namespace velmor_com::NQ::LPC {
namespace {

// The parameters of a call, put on the wire by hand.
MemoryConnector incoming(const std::vector<std::wstring> &parameters) {
    MemoryConnector connector;
    for (const std::wstring &parameter : parameters)
        connector.in.push_back(wire_bytes(L"22 serialization::archive 18 " + parameter));
    return connector;
}

const std::vector<std::wstring> kNames = {L"3 4 Prov", L"4 3 IXy", L"5 2 do"};

std::vector<std::wstring> with_names(std::vector<std::wstring> arguments) {
    arguments.insert(arguments.begin(), kNames.begin(), kNames.end());
    return arguments;
}

std::wstring text_of(const std::string &bytes) {
    const std::wstring text(reinterpret_cast<const wchar_t *>(bytes.data()), bytes.size() / 4);
    return text.substr(text.find(L' ', 26) + 1);
}

TEST(Call, NamespaceServiceMethodAndArguments) {
    MemoryConnector connector = incoming(with_names({L"2 7", L"2 2 hi", L"2 1"}));
    CallDescriptor call(&connector);
    EXPECT_EQ(call.getNamespace(), "Prov");
    EXPECT_EQ(call.getInterfaceName(), "IXy");
    EXPECT_EQ(call.getMethodName(), "do");
    int number = 0;
    std::wstring text;
    bool yes = false;
    call >> number >> text >> yes;
    EXPECT_EQ(number, 7);
    EXPECT_EQ(text, L"hi");
    EXPECT_TRUE(yes);
    EXPECT_THROW(call >> number, LPCError);
    call << true << 5;
    ASSERT_EQ(connector.out.size(), 2u);
    EXPECT_EQ(text_of(connector.out[0]), L"1 1\n");
    EXPECT_EQ(text_of(connector.out[1]), L"2 5\n");
}

TEST(Call, RolesMustFit) {
    MemoryConnector swapped = incoming({kNames[1], kNames[0], kNames[2]});
    EXPECT_THROW(CallDescriptor call(&swapped), LPCError);
    MemoryConnector result_in_call = incoming(with_names({L"1 7"}));
    CallDescriptor call(&result_in_call);
    int number = 0;
    EXPECT_THROW(call >> number, LPCError);
    MemoryConnector empty = incoming({});
    EXPECT_THROW(CallDescriptor none(&empty), LPCError);
    MemoryConnector no_bytes = incoming(kNames);
    no_bytes.in.front().clear();
    EXPECT_THROW(CallDescriptor none(&no_bytes), LPCError);
    MemoryConnector long_name =
        incoming({L"3 300 " + std::wstring(300, L'x'), kNames[1], kNames[2]});
    EXPECT_THROW(CallDescriptor none(&long_name), LPCError);
}

TEST(Call, EveryClassOfFailureHasAText) {
    std::vector<std::string> texts;
    for (int code = ecPackageError; code <= ecServiceNotAvailable; code++) {
        try {
            CallDescriptor::mapErrorAndThrowException(static_cast<LPCErrorCode>(code));
        } catch (const LPCError &error) {
            EXPECT_EQ(error.code(), code);
            texts.push_back(error.what());
        }
    }
    ASSERT_EQ(texts.size(), 13u);
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::unique(texts.begin(), texts.end()), texts.end());
    EXPECT_THROW(CallDescriptor::mapErrorAndThrowException(static_cast<LPCErrorCode>(99)),
                 LPCError);
}

int answer(const std::function<void(CallDescriptor &)> &handle) {
    MemoryConnector connector = incoming(kNames);
    return answer_call(&connector, handle);
}

TEST(Call, NothingEscapesFromAnAnswer) {
    LogCapture log;
    EXPECT_EQ(answer([](CallDescriptor &) {}), IObjectConnector::kDone);
    EXPECT_EQ(answer([](CallDescriptor &) { throw LPCError(ecRoutingError, "one"); }),
              ecRoutingError);
    EXPECT_EQ(answer([](CallDescriptor &) { throw std::runtime_error("two"); }),
              ecApplicationError);
    EXPECT_EQ(answer([](CallDescriptor &) { throw 3; }), ecApplicationError);
    EXPECT_EQ(log.all().size(), 3u);
    EXPECT_TRUE(log.has(kErrorLine, L"one"));
    EXPECT_TRUE(log.has(kErrorLine, L"two"));
}

TEST(Call, ResultsOfAsynchronousCallsAreNotKeptByTheLoopbackAgent) {
    EXPECT_THROW(CallDescriptor call(7u, "do"), LPCError);
}

}  // namespace
}  // namespace velmor_com::NQ::LPC
