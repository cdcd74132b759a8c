#pragma once
// What the tests of records share: connections that never were on a network, records, and images
// of bodies that are written offset by offset from their documented layout.
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>

#include "ruv/conn.h"
#include "ruv/encode.h"
#include "ruv/record.h"
#include "ruv/ruvlib.h"
#include "ruv/ruvlibsetters.h"

namespace kit {

// A handle whose Receiver takes every type in every version; version 6 with three sub-versions.
struct connection {
    connection() {
        memset(static_cast<void *>(&conn), 0, sizeof conn);
        conn.skt = -1;
        conn.ruv_ver = kVersion6;
        conn.data_types = 0x1F;
        for (auto &type : conn.data_versions)
            for (uint16_t &cell : type) cell = 0x7;
        strcpy(conn.ip_addr, "192.0.2.77");
    }
    RUVConn conn;
};

struct free_record {
    void operator()(RUVData_t *record) const { RUVFreeData(record); }
};
using record_ptr = std::unique_ptr<RUVData_t, free_record>;

// A record of `type`, version `ver` and one-based sub-version `subver`.
inline record_ptr make(int type, int ver, int subver = 1) {
    connection any;
    return record_ptr(static_cast<RUVData_t *>(RUVAllocData(&any.conn, type, ver, subver)));
}

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

// All segments of an encoded unit in one string.
inline std::string joined(const encoded_unit &unit) {
    std::string bytes;
    for (int i = 0; i < unit.count; ++i)
        bytes.append(static_cast<const char *>(unit.segments[i].iov_base),
                     unit.segments[i].iov_len);
    return bytes;
}

// What the encoder makes of `record`; "error N" when it refuses.
inline std::string encoded(const RUVData_t *record, const RUVDSInfo *source = nullptr,
                           int channel = 0x1234, const char *address = "192.0.2.77") {
    encoded_unit unit;
    if (libruv_encode(record, source, channel, address, &unit) != 0)
        return "error " + std::to_string(ruverrno);
    return joined(unit);
}

inline std::string encoded(const record_ptr &record, const RUVDSInfo *source = nullptr,
                           int channel = 0x1234, const char *address = "192.0.2.77") {
    return encoded(record.get(), source, channel, address);
}

// Data sources. 10.1.2.3 is 0x0A010203 in host order.
inline RUVDSInfo ipv4_source() {
    RUVDSInfo source = {};
    source.type = kDsIPv4;
    source.ipv4 = 0x0A010203;
    return source;
}
inline RUVDSInfo ipv6_source() {
    RUVDSInfo source = {};
    source.type = kDsIPv6;
    source.ipv6[0] = 0x20010DB8;
    source.ipv6[1] = 0x00000001;
    source.ipv6[2] = 0x0A0B0C0D;
    source.ipv6[3] = 0x0E0F1011;
    return source;
}
inline RUVDSInfo host_source(char *name) {
    RUVDSInfo source = {};
    source.type = kDsHostID;
    source.hostid = name;
    return source;
}

}  // namespace kit
