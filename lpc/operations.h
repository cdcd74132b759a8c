// The operations of an interface as a list: what stands on the wire for which member function; and
// the root of the proxies, which carry them out.
#pragma once

#include <string>
#include <tuple>
#include <type_traits>

#include "lpc/interface.h"

namespace velmor_com::NQ::LPC {

/// A name, unique in the interface, and the member that it stands for.
template <class Member>
struct Operation {
    const char *name;
    Member member;
};
/// Older compilers deduce nothing for an aggregate on their own.
template <class Member>
Operation(const char *, Member) -> Operation<Member>;

/// The list of interface I: what every interface has, and then its own.
template <class I>
constexpr auto all_operations() {
    return std::tuple_cat(std::make_tuple(Operation{"isRunning", &ILPCInterface::isRunning},
                                          Operation{"abort", &ILPCInterface::abort}),
                          I::operations());
}

/// Calls `visit` with each operation of I in turn.
template <class I, class Visit>
constexpr void for_each_operation(Visit visit) {
    std::apply([&](const auto &...operation) { (visit(operation), ...); }, all_operations<I>());
}

/// The name of a member of I; empty for one that is not an operation.
template <class I, class Member>
const char *operation_name(Member wanted) {
    const char *name = "";
    for_each_operation<I>([&](const auto &operation) {
        if constexpr (std::is_same_v<std::remove_cvref_t<decltype(operation.member)>, Member>)
            if (operation.member == wanted) name = operation.name;
    });
    return name;
}

/// What the proxies of an interface have in common.
template <class I>
class ProxyBase : public I {
  public:
    explicit ProxyBase(const char *provider) : m_provider(provider) {}
    std::string getInterfaceId() override { return I::kInterfaceId; }
    std::string getImplementationProvider() override { return m_provider; }

  protected:
    const std::string m_provider;
    unsigned m_timeoutSeconds = 0;  ///< of one call to another process; 0 is the runtime's own
};

}  // namespace velmor_com::NQ::LPC
