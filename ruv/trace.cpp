#include "ruv/trace.h"

#include <cctype>
#include <cstdint>
#include <cstdio>

std::atomic<int> debug_fn_call{0};
std::atomic<int> debug_send{0};
std::atomic<int> debug_recv{0};
std::atomic<int> debug_trace{0};
std::atomic<int> debug_data{0};

namespace {

constexpr uint64_t kLoggingBits = 0x1F;
constexpr size_t kDumpRow = 16;
constexpr int kDumpHexColumns = 63;  // of a full row, its offset included

// One row of a dump: offset, bytes in hexadecimal, the same bytes as characters.
void dump_row(const uint8_t *bytes, size_t offset, size_t count) {
    int columns = fprintf(stderr, "\t[%5d]:", static_cast<int>(offset));
    for (size_t i = 0; i < count; ++i) {
        if (i % 4 == 0) columns += fprintf(stderr, " ");
        if (i % 8 == 0) columns += fprintf(stderr, " ");
        columns += fprintf(stderr, "%02x ", bytes[offset + i]);
    }
    if (columns < kDumpHexColumns) fprintf(stderr, "%*c", kDumpHexColumns - columns, ' ');
    fprintf(stderr, "        ");
    for (size_t i = 0; i < count; ++i) {
        if (i % 8 == 0) fprintf(stderr, " ");
        const uint8_t byte = bytes[offset + i];
        fprintf(stderr, "%c", isprint(byte) ? byte : '.');
    }
    fprintf(stderr, "\n");
}

}  // namespace

namespace ruv {

void trace_line(const char *function, int line) {
    fprintf(stderr, "libruv -- %s -- %s -- %d\n", "ruvlib", function, line);
}

void trace_enter(const char *function, int line) {
    if (enabled(debug_trace))
        trace_line(function, line);
    else
        fprintf(stderr, "libruv -- function enter: %s\n", function);
}

void trace_exit(const char *function, int line, bool failed) {
    if (enabled(debug_trace))
        trace_line(function, line);
    else if (failed)
        fprintf(stderr, "libruv -- function error exit: %s [%d]\n", function, ruverrno);
    else
        fprintf(stderr, "libruv -- function exit: %s\n", function);
}

void dump_segments(const char *title, int iovcnt, const iovec *iov) {
    fputs(title, stderr);
    for (int i = 0; i < iovcnt; ++i) {
        fprintf(stderr, "Segment[%3d]: len: %5zu, ptr: %p\n", i, iov[i].iov_len, iov[i].iov_base);
        const auto *bytes = static_cast<const uint8_t *>(iov[i].iov_base);
        for (size_t offset = 0; offset < iov[i].iov_len; offset += kDumpRow) {
            const size_t left = iov[i].iov_len - offset;
            dump_row(bytes, offset, left < kDumpRow ? left : kDumpRow);
        }
    }
}

}  // namespace ruv

int RUVSetLogging(uint64_t logging) {
    return ruv::traced("RUVSetLogging", [&] {
        if (logging & ~kLoggingBits) return ruv::fail(23);
        std::atomic<int> *const switches[] = {&debug_fn_call, &debug_send, &debug_recv,
                                              &debug_trace, &debug_data};
        for (int bit = 0; bit < 5; ++bit)
            switches[bit]->store(logging >> bit & 1, std::memory_order_relaxed);
        return 0;
    });
}

char *RUVStrError(RUVConn *conn, int err, char *errstr) {
    return ruv::traced("RUVStrError", [&]() -> char * {
        if (ruv::error_text(conn, err, errstr)) return errstr;
        return ruv::fail_null(99, err);
    });
}
