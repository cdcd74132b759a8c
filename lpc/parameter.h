// One parameter of a call: its role and its value, encoded in a wide text archive.
//
// On the wire a parameter is the archive's characters, four bytes each in the byte order of the
// host, since both ends run on one machine. Belongs to one thread at a time; the count of
// references is safe on any.
#pragma once

#include <atomic>
#include <functional>
#include <sstream>
#include <string>

#include "lpc/errors.h"
#include "lpc/interface.h"
#include "lpc/value_archive.h"

namespace velmor_com::NQ::LPC {

class Parameter {
  public:
    /// A larger block from the wire is refused before it is copied.
    static constexpr size_t kMaxBytes = size_t{32} << 20;

    /// A value, encoded at once. The constructors and readers throw an LPCError on failure.
    template <class T>
    requires(!CheckLPCInterface<T>::value) Parameter(const T &value, Param_Type type)
        : m_type(type) {
        serializeData([&](OutArchive &archive) { save_value(archive, value); });
    }
    /// An interface: its identifier and who provides it. Null is carried as null.
    Parameter(ILPCInterface *object, Param_Type type);
    Parameter(ILPCInterface &object, Param_Type type) : Parameter(&object, type) {}
    /// A parameter received from the wire.
    Parameter(const void *bytes, size_t size);

    /// The object starts with one reference and is deleted with its last one.
    void addRef();
    void releaseRef();

    /// Decodes the value into the caller's variable, which is unchanged on failure. May be called
    /// again.
    template <class T>
    void get(T &value) {
        T decoded{};
        deserializeData([&](InArchive &archive) { load_value(archive, decoded); });
        value = std::move(decoded);
    }
    /// get() of a parameter that must be a return value; another one is a protocol error.
    template <class T>
    void getResult(T &value) {
        requireType(ptReturnValue);
        get(value);
    }
    /// Decodes an interface; false when it is null.
    bool getInterface(std::string &interfaceId, std::string &provider);

    Param_Type getType() const { return m_type; }
    void requireType(Param_Type type) const;
    /// Bytes of the encoded form.
    size_t getSize() const;
    /// Copies the encoded form out; false when the buffer is too short.
    bool read(void *buffer, size_t length) const;

  private:
    ~Parameter() = default;
    void serializeData(const std::function<void(OutArchive &)> &save);
    void deserializeData(const std::function<void(InArchive &)> &load);

    std::atomic<unsigned> m_references{1};
    Param_Type m_type;
    std::wstringstream m_stream;
};

/// Scope owner of one reference.
class ParameterRef {
  public:
    explicit ParameterRef(Parameter *parameter) : m_parameter(parameter) {}
    ~ParameterRef() { m_parameter->releaseRef(); }
    ParameterRef(const ParameterRef &) = delete;
    ParameterRef &operator=(const ParameterRef &) = delete;
    Parameter *operator->() const { return m_parameter; }

  private:
    Parameter *m_parameter;
};

}  // namespace velmor_com::NQ::LPC
