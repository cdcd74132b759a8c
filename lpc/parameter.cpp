#include "lpc/parameter.h"

#include <cstring>
#include <string_view>

#include "lpc/dylib_manager.h"
#include "lpc/logger.h"
#include "lpc/wide_text.h"

namespace velmor_com::NQ::LPC {

namespace {

constexpr wchar_t kModule[] = L"LPC";

void log_error(const std::wstring &message) {
    Services::LPCLogger::getLogger()->logError(kModule, message.c_str());
}

ISerializationFactory &archives() {
    if (auto *factory = LPCDylibManager::instance()->getSerializationFactory()) return *factory;
    throw LPCError(ecVlrLPCAccessError, "LPC runtime is not available");
}

// An archive for the length of a scope.
template <class Archive, void (ISerializationFactory::*create)(std::wstringstream &, Archive *&),
          void (ISerializationFactory::*destroy)(Archive *&)>
class ScopedArchive {
  public:
    ScopedArchive(ISerializationFactory &factory, std::wstringstream &stream) : m_factory(factory) {
        (m_factory.*create)(stream, m_archive);
    }
    ~ScopedArchive() { (m_factory.*destroy)(m_archive); }
    ScopedArchive(const ScopedArchive &) = delete;
    ScopedArchive &operator=(const ScopedArchive &) = delete;
    Archive &operator*() const { return *m_archive; }

  private:
    ISerializationFactory &m_factory;
    Archive *m_archive = nullptr;
};

using ScopedOut = ScopedArchive<OutArchive, &ISerializationFactory::createOarchive,
                                &ISerializationFactory::destroyOarchive>;
using ScopedIn = ScopedArchive<InArchive, &ISerializationFactory::createIarchive,
                               &ISerializationFactory::destroyIarchive>;

}  // namespace

Parameter::Parameter(ILPCInterface *object, Param_Type type) : m_type(type) {
    serializeData([object](OutArchive &archive) {
        save_value(archive, object != nullptr);
        if (!object) return;
        save_value(archive, widen_text(object->getInterfaceId()));
        save_value(archive, widen_text(object->getImplementationProvider()));
    });
}

Parameter::Parameter(const void *bytes, size_t size) : m_type(ptArgument) {
    if (size == 0 || size > kMaxBytes || size % sizeof(wchar_t) != 0)
        throw SerializationError("Error occured during deserialization");
    std::wstring text(size / sizeof(wchar_t), L'\0');
    memcpy(text.data(), bytes, size);
    m_stream.str(std::move(text));
    deserializeData([](InArchive &) {});
}

void Parameter::addRef() {
    m_references.fetch_add(1, std::memory_order_relaxed);
}

void Parameter::releaseRef() {
    if (m_references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

bool Parameter::getInterface(std::string &interfaceId, std::string &provider) {
    bool present = false;
    std::wstring id, from;
    deserializeData([&](InArchive &archive) {
        load_value(archive, present);
        if (!present) return;
        load_value(archive, id);
        load_value(archive, from);
    });
    interfaceId = narrow_text(id);
    provider = narrow_text(from);
    return present;
}

void Parameter::requireType(Param_Type type) const {
    if (m_type != type) throw LPCError(ecProtocolError, "Unexpected kind of parameter");
}

size_t Parameter::getSize() const {
    return m_stream.view().size() * sizeof(wchar_t);
}

bool Parameter::read(void *buffer, size_t length) const {
    const std::wstring_view text = m_stream.view();
    if (length < text.size() * sizeof(wchar_t)) return false;
    memcpy(buffer, text.data(), text.size() * sizeof(wchar_t));
    return true;
}

void Parameter::serializeData(const std::function<void(OutArchive &)> &save) {
    ISerializationFactory &factory = archives();
    try {
        ScopedOut archive(factory, m_stream);
        save_type(*archive, m_type);
        save(*archive);
    } catch (const std::exception &error) {
        log_error(widen_text(error.what()));
        throw SerializationError("Error occured during serialization");
    } catch (...) {
        log_error(L"Unknown exception caught during serialization");
        throw UnknownError("Unknown error occured during serialization");
    }
}

void Parameter::deserializeData(const std::function<void(InArchive &)> &load) {
    ISerializationFactory &factory = archives();
    try {
        m_stream.clear();
        m_stream.seekg(0);
        ScopedIn archive(factory, m_stream);
        m_type = load_type(*archive);
        load(*archive);
    } catch (const std::exception &error) {
        log_error(widen_text(error.what()));
        throw SerializationError("Error occured during deserialization");
    } catch (...) {
        log_error(L"Unknown exception caught during deserialization");
        throw UnknownError("Unknown error occured during deserialization");
    }
}

}  // namespace velmor_com::NQ::LPC
