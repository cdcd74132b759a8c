#pragma once
// What the tests of records share: connections that never were on a network, records, data sources,
// and the encoder's result as a string.
#include <cstring>
#include <memory>
#include <string>

#include "ruv/conn.h"
#include "ruv/encode.h"
#include "ruv/record.h"
#include "ruv/ruvlib.h"
#include "ruv/ruvlibsetters.h"
#include "tests/ruv/wire_image.h"

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
