// How one argument of an operation travels, decided by its declared type P: a value or a constant
// reference goes to the servant, a plain reference goes there and comes back, a pointer to an
// interface goes as a reference to the object. `Call` is CallDescriptor.
#pragma once

#include <memory>
#include <tuple>
#include <type_traits>

#include "lpc/interface.h"

namespace velmor_com::NQ::LPC {

/// Whether the operation may change the caller's variable.
template <class P>
constexpr bool kComesBack =
    std::is_lvalue_reference_v<P> && !std::is_const_v<std::remove_reference_t<P>>;

/// The providing side: holds the argument while the operation runs.
template <class P>
class Argument {
  public:
    template <class Call>
    void take(Call &call) {
        call >> m_value;
    }
    P pass() { return m_value; }
    template <class Call>
    void giveBack(Call &call) {
        if constexpr (kComesBack<P>) call << m_value;
    }

  private:
    std::remove_cvref_t<P> m_value{};
};

/// An interface lives as long as the call; the servant must not keep it.
template <class P>
requires(CheckLPCInterface<P>::value) class Argument<P> {
  public:
    template <class Call>
    void take(Call &call) {
        m_object = call.readInterface();
    }
    P pass() { return dynamic_cast<P>(m_object.get()); }
    template <class Call>
    void giveBack(Call &) {}

  private:
    std::unique_ptr<ILPCInterface> m_object;
};

/// Runs a call that came in on the object: takes the arguments in order, runs the operation, and
/// answers with its result and the arguments that come back.
template <class Call, class Object, class R, class C, class... P>
void run_operation(Call &call, Object *object, R (C::*operation)(P...)) {
    std::tuple<Argument<P>...> arguments;
    const auto with_all = [&](auto &...argument) {
        (argument.take(call), ...);
        const R result = (object->*operation)(argument.pass()...);
        call << result;
        (argument.giveBack(call), ...);
    };
    std::apply(with_all, arguments);
}

/// The calling side: puts one argument into the call, and takes it back from the answer.
template <class P, class Call>
void send_argument(Call &call, const std::remove_reference_t<P> &value) {
    if constexpr (CheckLPCInterface<P>::value)
        call << static_cast<ILPCInterface *>(value);
    else
        call << value;
}

template <class P, class Call>
void fetch_argument(Call &call, [[maybe_unused]] std::remove_reference_t<P> &value) {
    if constexpr (kComesBack<P>) call >> value;
}

}  // namespace velmor_com::NQ::LPC
