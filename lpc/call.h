// One call: which method of which interface of which process, and its parameters in order.
//
// A call is laid out as its namespace (the provider's process identifier), its service (the
// interface identifier), its method, and then the arguments in the order of the declaration; an
// argument that the method may change travels both ways. The answer is the return value and then
// those arguments. docs/lpc.md shows one on the wire.
//
// Operations throw an LPCError when they fail. A descriptor belongs to one thread.
#pragma once

#include <memory>
#include <string>

#include "lpc/parameter.h"
#include "lpc/vlr_runtime.h"

namespace velmor_com::NQ::LPC {

class CallDescriptor {
  public:
    /// A call to the provider of `object`.
    CallDescriptor(ILPCInterface *object, const char *interfaceName, const char *methodName);
    /// A call that came in through the runtime; the connector stays the caller's.
    explicit CallDescriptor(IObjectConnector *connector);
    /// The answer to the asynchronous call with this identifier.
    CallDescriptor(unsigned id, const char *name);
    ~CallDescriptor();
    CallDescriptor(const CallDescriptor &) = delete;
    CallDescriptor &operator=(const CallDescriptor &) = delete;

    /// Appends a value: an argument of a call that goes out; to a call that came in, the return
    /// value first and changed arguments after it.
    template <class T>
    requires(!CheckLPCInterface<T>::value) CallDescriptor &operator<<(const T &value) {
        append(new Parameter(value, nextRoleOut()));
        return *this;
    }
    CallDescriptor &operator<<(int value);
    CallDescriptor &operator<<(ILPCInterface *object);

    /// Takes the next value of the other side, in the mirrored order.
    template <class T>
    CallDescriptor &operator>>(T &value) {
        const ParameterRef parameter(take());
        parameter->requireType(nextRoleIn());
        parameter->get(value);
        return *this;
    }
    /// Takes an interface and makes the object for it through the LPCFactory: null for a null
    /// reference, and for one that the factory cannot make.
    std::unique_ptr<ILPCInterface> readInterface();

    /// Sends the call; with `wait` the answer is there when it returns.
    void invoke(bool wait);

    const std::string &getInterfaceName() const { return m_interfaceName; }
    const std::string &getMethodName() const { return m_methodName; }
    const std::string &getNamespace() const { return m_namespace; }
    /// How long invoke() waits; 0, the default, leaves it to the runtime.
    void setOperationTimeout(unsigned seconds) { m_timeoutSeconds = seconds; }

    [[noreturn]] static void mapErrorAndThrowException(LPCErrorCode code);

  private:
    Param_Type nextRoleOut();
    Param_Type nextRoleIn();
    void append(Parameter *parameter);
    Parameter *take();
    std::string takeName(Param_Type role);

    IObjectConnector *m_connector;
    const bool m_incoming;
    const bool m_ownConnector;
    bool m_resultPending = true;  ///< the return value has not been written or taken yet
    unsigned m_timeoutSeconds = 0;
    std::string m_namespace, m_interfaceName, m_methodName;
};

/// Runs the handling of a call that came in and turns whatever it throws into an error code, after
/// an error line. Returns IObjectConnector::kDone otherwise.
int answer_call(IObjectConnector *connector, const std::function<void(CallDescriptor &)> &handle);

}  // namespace velmor_com::NQ::LPC
