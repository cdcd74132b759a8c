#include "lpc/call.h"

#include <vector>

#include "lpc/dylib_manager.h"
#include "lpc/factory.h"
#include "lpc/logger.h"
#include "lpc/wide_text.h"

namespace velmor_com::NQ::LPC {

namespace {

// A name on the wire is an identifier; longer ones are nobody's.
constexpr size_t kMaxNameLength = 256;

// One row per failure class; the index is the class.
constexpr const char *kErrorTexts[] = {
    "Package error",
    "Logic error",
    "Protocol error",
    "Application error",
    "Operation timed out",
    "Communication error",
    "Routing error",
    "Routing error, stale process information",
    "IPC error",
    "Authentication error",
    "Process not found",
    "LPC runtime access error",
    "Service not available",
};
static_assert(std::size(kErrorTexts) == ecServiceNotAvailable + 1);

int report(LPCErrorCode code, const char *what) {
    Services::LPCLogger::getLogger()->logError(L"LPC", widen_text(what).c_str());
    return code;
}

}  // namespace

CallDescriptor::CallDescriptor(ILPCInterface *object, const char *interfaceName,
                               const char *methodName)
    : m_connector(nullptr),
      m_incoming(false),
      m_ownConnector(true),
      m_namespace(object->getImplementationProvider()),
      m_interfaceName(interfaceName),
      m_methodName(methodName) {
    m_connector = LPCDylibManager::instance()->getObjectConnector(m_namespace.c_str(),
                                                                  interfaceName, methodName);
    if (!m_connector) mapErrorAndThrowException(ecServiceNotAvailable);
    try {
        append(new Parameter(widen_text(m_namespace), ptNamespace));
        append(new Parameter(widen_text(m_interfaceName), ptService));
        append(new Parameter(widen_text(m_methodName), ptMethod));
    } catch (...) {
        LPCDylibManager::instance()->destroyConnector(m_connector);
        throw;
    }
}

CallDescriptor::CallDescriptor(IObjectConnector *connector)
    : m_connector(connector),
      m_incoming(true),
      m_ownConnector(false),
      m_namespace(takeName(ptNamespace)),
      m_interfaceName(takeName(ptService)),
      m_methodName(takeName(ptMethod)) {
}

CallDescriptor::CallDescriptor(unsigned id, const char *name)
    : m_connector(LPCDylibManager::instance()->createAsyncResultConnector(id)),
      m_incoming(false),
      m_ownConnector(true),
      m_methodName(name) {
    if (!m_connector) mapErrorAndThrowException(ecServiceNotAvailable);
}

CallDescriptor::~CallDescriptor() {
    if (m_ownConnector) LPCDylibManager::instance()->destroyConnector(m_connector);
}

CallDescriptor &CallDescriptor::operator<<(int value) {
    append(new Parameter(value, nextRoleOut()));
    return *this;
}

CallDescriptor &CallDescriptor::operator<<(ILPCInterface *object) {
    append(new Parameter(object, nextRoleOut()));
    return *this;
}

std::unique_ptr<ILPCInterface> CallDescriptor::readInterface() {
    std::string interfaceId, provider;
    {
        const ParameterRef parameter(take());
        parameter->requireType(nextRoleIn());
        if (!parameter->getInterface(interfaceId, provider)) return nullptr;
    }
    return std::unique_ptr<ILPCInterface>(
        LPCFactory::instance()->createInstance(interfaceId, provider));
}

void CallDescriptor::invoke(bool wait) {
    const int result = m_connector->invoke(wait, m_timeoutSeconds);
    if (result != IObjectConnector::kDone)
        mapErrorAndThrowException(static_cast<LPCErrorCode>(result));
}

void CallDescriptor::mapErrorAndThrowException(LPCErrorCode code) {
    const bool known = code >= 0 && static_cast<size_t>(code) < std::size(kErrorTexts);
    throw LPCError(known ? code : ecProtocolError,
                   kErrorTexts[known ? static_cast<int>(code) : ecProtocolError]);
}

Param_Type CallDescriptor::nextRoleOut() {
    if (!m_incoming || !m_resultPending) return ptArgument;
    m_resultPending = false;
    return ptReturnValue;
}

Param_Type CallDescriptor::nextRoleIn() {
    if (m_incoming || !m_resultPending) return ptArgument;
    m_resultPending = false;
    return ptReturnValue;
}

void CallDescriptor::append(Parameter *parameter) {
    const ParameterRef owner(parameter);
    std::vector<char> bytes(parameter->getSize());
    parameter->read(bytes.data(), bytes.size());
    if (!m_connector->write(bytes.data(), bytes.size()))
        mapErrorAndThrowException(ecCommunicationError);
}

Parameter *CallDescriptor::take() {
    size_t size = 0;
    if (!m_connector->nextSize(&size) || size == 0 || size > Parameter::kMaxBytes)
        mapErrorAndThrowException(ecProtocolError);
    std::vector<char> bytes(size);
    if (!m_connector->read(bytes.data(), size)) mapErrorAndThrowException(ecCommunicationError);
    return new Parameter(bytes.data(), size);
}

std::string CallDescriptor::takeName(Param_Type role) {
    const ParameterRef parameter(take());
    parameter->requireType(role);
    std::wstring name;
    parameter->get(name);
    if (name.size() > kMaxNameLength) mapErrorAndThrowException(ecProtocolError);
    return narrow_text(name);
}

int answer_call(IObjectConnector *connector,
                const std::function<void(CallDescriptor &)> &handle) try {
    CallDescriptor call(connector);
    handle(call);
    return IObjectConnector::kDone;
} catch (const LPCError &error) {
    return report(error.code(), error.what());
} catch (const std::exception &error) {
    return report(ecApplicationError, error.what());
} catch (...) {
    return report(ecApplicationError, "Unknown exception in a service");
}

}  // namespace velmor_com::NQ::LPC
