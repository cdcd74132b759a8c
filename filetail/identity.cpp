#include "filetail/identity.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>

#include "core/execution.h"
#include "core/utils.h"
#include "filetail/owned_descriptor.h"
#include "filetail/sight.h"

namespace {

constexpr uint64_t kTailBytes = 257;  // the tail checksum's range begins so far before the end
constexpr size_t kBlockBytes = 64 * 1024;

using table = std::array<uint32_t, 256>;

constexpr uint32_t step(const table &crc, uint32_t value, unsigned char byte) {
    return (value >> 8) ^ crc[(value ^ byte) & 0xFF];
}

constexpr table kCrc = [] {
    table crc = {};
    for (uint32_t i = 0; i < 256; ++i) {
        crc[i] = i;
        for (int bit = 0; bit < 8; ++bit) {
            crc[i] = (crc[i] >> 1) ^ ((crc[i] & 1) * 0xEDB88320u);
        }
    }
    return crc;
}();

// What a byte that has left the 256 behind it still adds to a checksum that began with zero.
constexpr table kLeft = [] {
    table left = {};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = step(kCrc, 0, static_cast<unsigned char>(i));
        for (size_t n = 0; n < kHeadBytes; ++n) value = step(kCrc, value, 0);
        left[i] = value;
    }
    return left;
}();

// Looks for 256 bytes with this checksum between two places. The checksum of each range follows
// from that of the one before: a CRC is linear but for its constant beginning.
bool has_range(int fd, uint64_t from, uint64_t to, uint32_t checksum) {
    const std::unique_ptr<unsigned char[]> text(
        new (std::nothrow) unsigned char[kHeadBytes + kBlockBytes]);
    if (!text) return false;
    const char zeros[kHeadBytes] = {};
    const uint32_t wanted = checksum ^ computeChecksum(zeros);
    std::memset(text.get(), 0, kHeadBytes);  // 256 zeros in front change nothing
    uint32_t value = 0;
    for (uint64_t done = from; done < to && is_running();) {
        const size_t size = std::min<uint64_t>(kBlockBytes, to - done);
        const ssize_t got = pread(fd, text.get() + kHeadBytes, size, static_cast<off_t>(done));
        if (got <= 0) return false;
        for (ssize_t i = 0; i < got; ++i) {
            value = step(kCrc, value, text[kHeadBytes + i]) ^ kLeft[text[i]];
            if (value == wanted && done + i + 1 >= from + kHeadBytes) return true;
        }
        done += static_cast<uint64_t>(got);
        std::memmove(text.get(), text.get() + got, kHeadBytes);
    }
    return false;
}

bool has_tail(int fd, uint64_t size, uint64_t location, uint32_t tail) {
    const uint64_t least = std::max(location, kTailBytes);
    if (size < least) return false;
    // Mostly nothing was unread when the record was written, or nothing has come since.
    return tail_checksum(fd, least, 0) == tail || tail_checksum(fd, size, 0) == tail ||
           has_range(fd, least - kTailBytes, size - 1, tail);
}

}  // namespace

bool is_grown_small_file(const char *path, uint32_t head, uint64_t location) {
    if (location >= kHeadBytes) return false;
    const owned_descriptor fd(open_regular(path));
    if (fd.get() < 0) return false;
    char block[kHeadBytes];
    const size_t size = read_head(fd.get(), block);
    for (size_t kept = std::min<size_t>(size, kHeadBytes - 1) + 1; kept-- > location;) {
        std::memset(block + kept, 0, kHeadBytes - kept);
        if (computeChecksum(block) == head) return true;
    }
    return false;
}

bool begins_as_seen(int fd, const file_sight &sight) {
    char block[kHeadBytes];
    read_head(fd, block);
    if (sight.size < kHeadBytes) std::memset(block + sight.size, 0, kHeadBytes - sight.size);
    return computeChecksum(block) == sight.head;
}

bool is_predecessor(int fd, uint64_t size, const fdesc *bm) {
    if (size < bm->l || head_checksum(fd) != bm->h) return false;
    return size <= kHeadBytes || has_tail(fd, size, bm->l, bm->t);
}
