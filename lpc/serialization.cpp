#include "lpc/serialization.h"

#include <boost/archive/detail/polymorphic_iarchive_route.hpp>
#include <boost/archive/polymorphic_iarchive.hpp>
#include <boost/archive/polymorphic_oarchive.hpp>
#include <boost/archive/polymorphic_text_woarchive.hpp>
#include <boost/archive/text_wiarchive.hpp>
#include <sstream>

// The bodies of the reader's templates, which need the declarations above.
#include <boost/archive/impl/basic_text_iarchive.ipp>
#include <boost/archive/impl/text_wiarchive_impl.ipp>

namespace velmor_com::NQ::LPC {

namespace {

using boost::archive::archive_exception;

// Boost's reader makes room for as many characters as the input claims to have. What comes from
// another process must not decide that, so both kinds of text are read here.
class naked_text_wiarchive : public boost::archive::text_wiarchive_impl<naked_text_wiarchive> {
    using base = boost::archive::text_wiarchive_impl<naked_text_wiarchive>;

  public:
    explicit naked_text_wiarchive(std::wistream &stream, unsigned flags = 0) : base(stream, flags) {
        init();
    }

    template <class T>
    void load(T &value) {
        base::load(value);
    }

    void load(std::wstring &text) {
        text.resize(text_size());
        is.read(text.data(), static_cast<std::streamsize>(text.size()));
        if (is.fail()) throw archive_exception(archive_exception::input_stream_error);
    }

    void load(std::string &text) {
        std::wstring wide;
        load(wide);
        text.clear();
        for (wchar_t c : wide) text += is.narrow(c, '\0');
    }

  private:
    size_t text_size() {
        size_t size = 0;
        base::load(size);
        is.get();  // the blank between the size and the text
        // What has been written to the same stream counts as readable only after a seek.
        is.rdbuf()->pubseekoff(0, std::ios_base::cur, std::ios_base::in);
        const std::streamsize left = is.rdbuf()->in_avail();
        if (is.fail() || left < 0 || size > static_cast<size_t>(left))
            throw archive_exception(archive_exception::input_stream_error);
        return size;
    }
};

using InputArchive = boost::archive::detail::polymorphic_iarchive_route<naked_text_wiarchive>;
using OutputArchive = boost::archive::polymorphic_text_woarchive;

}  // namespace

SerializationFactory::SerializationFactory() = default;
SerializationFactory::~SerializationFactory() = default;

unsigned short SerializationFactory::getArchiveMode() {
    return m_archiveMode;
}
unsigned short SerializationFactory::getVersion() {
    return kVersion;
}
void SerializationFactory::setArchiveMode(unsigned short mode) {
    m_archiveMode = mode;
}

void SerializationFactory::createOarchive(std::wstringstream &stream,
                                          boost::archive::polymorphic_oarchive *&archive) {
    archive = new OutputArchive(stream);
}

void SerializationFactory::createIarchive(std::wstringstream &stream,
                                          boost::archive::polymorphic_iarchive *&archive) {
    archive = new InputArchive(stream);
}

void SerializationFactory::destroyOarchive(boost::archive::polymorphic_oarchive *&archive) {
    delete static_cast<OutputArchive *>(archive);
    archive = nullptr;
}

void SerializationFactory::destroyIarchive(boost::archive::polymorphic_iarchive *&archive) {
    delete static_cast<InputArchive *>(archive);
    archive = nullptr;
}

}  // namespace velmor_com::NQ::LPC
