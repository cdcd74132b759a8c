// Makes the archives in which call parameters are encoded. The headers of Boost stay in the
// sources; this one only names the two archive types.
#pragma once

#include <iosfwd>

namespace boost::archive {
class polymorphic_oarchive;
class polymorphic_iarchive;
}  // namespace boost::archive

namespace velmor_com::NQ::LPC {

/// What the runtime and the parameters see of the factory. The operations may be called on any
/// thread, each archive belongs to one.
class ISerializationFactory {
  public:
    virtual ~ISerializationFactory() = default;
    /// The kind of archive that the process has agreed on with the runtime.
    virtual unsigned short getArchiveMode() = 0;
    virtual unsigned short getVersion() = 0;
    virtual void setArchiveMode(unsigned short mode) = 0;
    /// Makes an archive over the stream, which must outlive it; throws what the archive throws.
    virtual void createOarchive(std::wstringstream &stream,
                                boost::archive::polymorphic_oarchive *&archive) = 0;
    virtual void createIarchive(std::wstringstream &stream,
                                boost::archive::polymorphic_iarchive *&archive) = 0;
    /// Gives an archive back and sets the pointer to null; null is ignored.
    virtual void destroyOarchive(boost::archive::polymorphic_oarchive *&archive) = 0;
    virtual void destroyIarchive(boost::archive::polymorphic_iarchive *&archive) = 0;
};

/// Wide text archives, Boost's own format with its header. Boost reads the archives of its own and
/// of older releases and refuses those of newer ones. An archive that is read never takes more
/// memory than it has input: a text longer than the rest of the stream is refused before room is
/// made for it.
class SerializationFactory : public ISerializationFactory {
  public:
    static constexpr unsigned short kVersion = 1;

    SerializationFactory();
    ~SerializationFactory() override;
    unsigned short getArchiveMode() override;
    unsigned short getVersion() override;
    void setArchiveMode(unsigned short mode) override;
    void createOarchive(std::wstringstream &stream,
                        boost::archive::polymorphic_oarchive *&archive) override;
    void createIarchive(std::wstringstream &stream,
                        boost::archive::polymorphic_iarchive *&archive) override;
    void destroyOarchive(boost::archive::polymorphic_oarchive *&archive) override;
    void destroyIarchive(boost::archive::polymorphic_iarchive *&archive) override;

  private:
    unsigned short m_archiveMode = 0;  ///< set once, before the runtime calls
};

}  // namespace velmor_com::NQ::LPC
