// The shapes of an LPC interface, each written once for all interfaces. For an interface I:
//
//   Servant<I>        I_S               root of the implementation that does the work
//   Adaptor<I>        Adaptor_I         unmarshals a call that came in and runs it on the servant
//   RemoteCall<I>     I_Client_Impl     below I's proxy: marshals each call to another process
//   InProcessCall<I>  Adaptor_InProc_I  below I's proxy: calls the servant of this very process
//
// I itself is an abstract class with kInterfaceId and operations(); its proxy forwards each
// operation to call(). interfaces/IPropertyCollection.h is the example to copy.
#pragma once

#include <memory>
#include <string>

#include "lpc/arguments.h"
#include "lpc/call.h"
#include "lpc/factory.h"
#include "lpc/operations.h"

namespace velmor_com::NQ::LPC {

template <class I>
class Servant : public I {
  public:
    using Interface = I;
    std::string getInterfaceId() override { return I::kInterfaceId; }
    std::string getImplementationProvider() override {
        return LPCFactory::instance()->processIdentifier();
    }
};

/// Owns its servant.
template <class I>
class Adaptor : public IServiceAdaptor {
  public:
    explicit Adaptor(I *servant) : m_servant(servant) {}
    I *servant() const { return m_servant.get(); }

    int dispatch(IObjectConnector *connector) override {
        return answer_call(connector, [this](CallDescriptor &call) {
            bool found = false;
            for_each_operation<I>([&](const auto &operation) {
                if (found || call.getMethodName() != operation.name) return;
                found = true;
                run_operation(call, servant(), operation.member);
            });
            if (!found) CallDescriptor::mapErrorAndThrowException(ecLogicError);
        });
    }

  private:
    const std::unique_ptr<I> m_servant;
};

/// The operations of both kinds of proxy throw an LPCError when a call fails.
template <class I>
class RemoteCall : public ProxyBase<I> {
  public:
    static constexpr bool kInProcess = false;
    using ProxyBase<I>::ProxyBase;
    bool isRunning() override { return call(&ILPCInterface::isRunning); }
    bool abort() override { return call(&ILPCInterface::abort); }

  protected:
    template <class R, class C, class... P>
    R call(R (C::*member)(P...), std::type_identity_t<P>... arguments) {
        CallDescriptor call(this, I::kInterfaceId, operation_name<I>(member));
        call.setOperationTimeout(this->m_timeoutSeconds);
        (send_argument<P>(call, arguments), ...);
        call.invoke(true);
        R result{};
        call >> result;
        (fetch_argument<P>(call, arguments), ...);
        return result;
    }
};

template <class I>
class InProcessCall : public ProxyBase<I> {
  public:
    static constexpr bool kInProcess = true;
    InProcessCall(IServiceAdaptor *adaptor, const char *provider)
        : ProxyBase<I>(provider), m_adaptor(dynamic_cast<Adaptor<I> *>(adaptor)) {}
    bool isRunning() override { return call(&ILPCInterface::isRunning); }
    bool abort() override { return call(&ILPCInterface::abort); }

  protected:
    template <class R, class C, class... P>
    R call(R (C::*member)(P...), std::type_identity_t<P>... arguments) {
        // An adaptor that this framework did not make holds no servant that it could reach.
        if (!m_adaptor) CallDescriptor::mapErrorAndThrowException(ecServiceNotAvailable);
        return (m_adaptor->servant()->*member)(std::forward<P>(arguments)...);
    }

  private:
    Adaptor<I> *const m_adaptor;  ///< the repository's
};

}  // namespace velmor_com::NQ::LPC
