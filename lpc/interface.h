// The root of every LPC interface, in whichever shape it comes (shapes.h).
#pragma once

#include <string>
#include <type_traits>

namespace velmor_com::NQ::LPC {

class ILPCInterface {
  public:
    virtual ~ILPCInterface() = default;

    /// The identifier under which the interface is registered.
    virtual std::string getInterfaceId() = 0;
    /// The identifier of the process that provides it.
    virtual std::string getImplementationProvider() = 0;
    /// Whether a long operation is under way.
    virtual bool isRunning() = 0;
    /// Asks a long operation to end; true when there was one.
    virtual bool abort() = 0;
};

/// Decides whether a type is an interface, which is carried by reference, or a value.
template <class T>
struct CheckLPCInterface
    : std::is_base_of<ILPCInterface, std::remove_pointer_t<std::remove_cvref_t<T>>> {};

}  // namespace velmor_com::NQ::LPC
