#pragma once
// Images of wire bytes, written offset by offset from their documented layout.
#include <cstdint>
#include <initializer_list>
#include <string>

namespace kit {

// Bytes of a body at documented offsets, zero elsewhere.
class image {
  public:
    explicit image(size_t size) : bytes_(size, '\0') {}
    template <class T>
    image &at(size_t offset, T value) {
        for (size_t i = 0; i < sizeof(T); ++i)
            bytes_.at(offset + i) = static_cast<char>(value >> (8 * i) & 0xFF);
        return *this;
    }
    image &text(size_t offset, const std::string &bytes) {
        for (size_t i = 0; i < bytes.size(); ++i) bytes_.at(offset + i) = bytes[i];
        return *this;
    }
    const std::string &bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

inline std::string raw(std::initializer_list<int> values) {
    std::string bytes;
    for (const int value : values) bytes += static_cast<char>(value);
    return bytes;
}

const std::string kMagicBytes = raw({0x55, 0xAA, 0x55, 0xAA, 0xCE, 0xFA, 0xED, 0xFE});

// Magic and version-6 header: protocol 6, then 12 bits of type and 12 bits of sub-version.
inline std::string start6(unsigned type, unsigned sver, unsigned third_party, unsigned channel) {
    return kMagicBytes + image(8)
                             .at<uint32_t>(0, sver << 20 | type << 8 | 6)
                             .at<uint16_t>(4, static_cast<uint16_t>(third_party))
                             .at<uint16_t>(6, static_cast<uint16_t>(channel))
                             .bytes();
}

}  // namespace kit
