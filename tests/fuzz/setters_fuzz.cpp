// Random setter calls, then encoding; a decoder of its own reads every unit to its end.
#include <climits>
#include <cstdlib>
#include <memory>

#include "ruv/encode.h"
#include "tests/fuzz/frame_decoder.h"
#include "tests/fuzz/record_program.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    const auto made = std::make_unique<program::made>();
    program::source input(data, size);
    made->run(input);
    const RUVData_t &record = made->record;
    if (record.ctl.ver < 1 || record.data.data.num_istrings > kInsertionStrings) abort();

    encoded_unit unit;
    constexpr int kChannel = 0xBEEF;
    if (libruv_encode(&record, made->dsinfo(), kChannel, made->conn.ip_addr, &unit) != 0) {
        const bool too_old = record.ctl.type != kAlert && record.ctl.ver < 3;
        if (ruverrno != 18 && !(ruverrno == 2 && too_old)) abort();
        return 0;
    }
    if (unit.count > kUnitSegments) abort();
    std::string bytes;
    for (int i = 0; i < unit.count; ++i)
        bytes.append(static_cast<const char *>(unit.segments[i].iov_base),
                     unit.segments[i].iov_len);
    if (bytes.size() > INT_MAX) abort();
    if (!frame::ends_where_it_says(bytes, static_cast<int>(record.ctl.type), record.ctl.ver,
                                   record.ctl.sver, kChannel, record.ctl.tpt))
        abort();
    return 0;
}
