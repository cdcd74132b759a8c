// Records made by random setter calls, and then damaged rows, through the printers.
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "ruv/encode.h"
#include "ruv/record_print.h"
#include "tests/fuzz/record_program.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1024) return 0;
    // Only the stream: what a sanitizer has to say goes to the descriptor.
    static FILE *const nowhere = fopen("/dev/null", "w");
    if (nowhere == nullptr) abort();
    stderr = nowhere;
    const auto made = std::make_unique<program::made>();
    program::source input(data, size);
    made->run(input);
    // Words and ids that no setter would leave there.
    for (int row = 0; row < kCustomRows; ++row) {
        made->record.data.cfdata.bin[row] ^= size * 0x9E3779B97F4A7C15u << row;
        if (row % 3 == static_cast<int>(size % 3))
            made->record.data.cfdata.id[row] = static_cast<uint16_t>(row + size % 50);
    }
    encoded_unit unit;
    if (libruv_encode(&made->record, made->dsinfo(), 0, made->conn.ip_addr, &unit) != 0) return 0;
    libruv_print_record(&made->conn, &made->record, unit);
    return 0;
}
