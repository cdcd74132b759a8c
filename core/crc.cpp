// The checksums of core/utils.h over bytes in memory.
#include <array>
#include <mutex>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "core/utils.h"

namespace {

constexpr uint32_t kCrcPolynomial = 0xEDB88320;
constexpr size_t kBlockBytes = 256;
constexpr size_t kFoldLeastBytes = 64;

std::array<uint32_t, 256> g_crc_table;
std::once_flag table_init;

void build_crc_table() {
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) * kCrcPolynomial);
        g_crc_table[i] = value;
    }
}

uint32_t crc_by_table(uint32_t value, const unsigned char *bytes, size_t size) {
    for (; size > 0; --size, ++bytes) value = (value >> 8) ^ g_crc_table[(value ^ *bytes) & 0xff];
    return value;
}

#if defined(__x86_64__)
// Every event costs two checksums, so they are made with carry-less multiplication where the
// processor has it: the bytes are one long polynomial, and a part of it may be replaced by its
// product with a power of x modulo the CRC's polynomial, moved up by as many bits.
#define CRC_FOLDING __attribute__((target("pclmul,sse4.1")))

// Powers of x modulo the polynomial, bits reflected: for a distance of four blocks of 128 bits, of
// one block, and of half a block; then the polynomial itself with its inverse.
constexpr long long kFourBlocksLow = 0x154442bd4, kFourBlocksHigh = 0x1c6e41596;
constexpr long long kOneBlockLow = 0x1751997d0, kOneBlockHigh = 0x0ccaa009e;
constexpr long long kHalfBlock = 0x163cd6124;
constexpr long long kReflectedPolynomial = 0x1db710641, kReflectedInverse = 0x1f7011641;

CRC_FOLDING __m128i load_block(const unsigned char *bytes) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(bytes));
}

CRC_FOLDING __m128i fold(__m128i block, __m128i powers, __m128i onto) {
    const __m128i low = _mm_clmulepi64_si128(block, powers, 0x00);
    const __m128i high = _mm_clmulepi64_si128(block, powers, 0x11);
    return _mm_xor_si128(onto, _mm_xor_si128(low, high));
}

// Brings 128 bits down to the 32 of the remainder.
CRC_FOLDING uint32_t remainder(__m128i block, __m128i one_block) {
    const __m128i low_word = _mm_set_epi32(0, 0, 0, -1);
    const __m128i half = _mm_set_epi64x(0, kHalfBlock);
    const __m128i barrett = _mm_set_epi64x(kReflectedInverse, kReflectedPolynomial);
    block = _mm_xor_si128(_mm_srli_si128(block, 8), _mm_clmulepi64_si128(block, one_block, 0x10));
    block = _mm_xor_si128(_mm_srli_si128(block, 4),
                          _mm_clmulepi64_si128(_mm_and_si128(block, low_word), half, 0x00));
    __m128i quotient = _mm_clmulepi64_si128(_mm_and_si128(block, low_word), barrett, 0x10);
    quotient = _mm_clmulepi64_si128(_mm_and_si128(quotient, low_word), barrett, 0x00);
    return static_cast<uint32_t>(_mm_extract_epi32(_mm_xor_si128(block, quotient), 1));
}

// Takes a multiple of 16 bytes, at least kFoldLeastBytes.
CRC_FOLDING uint32_t crc_by_folding(uint32_t value, const unsigned char *bytes, size_t size) {
    const __m128i four_blocks = _mm_set_epi64x(kFourBlocksHigh, kFourBlocksLow);
    const __m128i one_block = _mm_set_epi64x(kOneBlockHigh, kOneBlockLow);
    __m128i lane[4];
    for (int i = 0; i < 4; ++i) lane[i] = load_block(bytes + 16 * i);
    lane[0] = _mm_xor_si128(lane[0], _mm_cvtsi32_si128(static_cast<int>(value)));
    for (bytes += 64, size -= 64; size >= 64; bytes += 64, size -= 64) {
        for (int i = 0; i < 4; ++i) {
            lane[i] = fold(lane[i], four_blocks, load_block(bytes + 16 * i));
        }
    }
    __m128i block = lane[0];
    for (int i = 1; i < 4; ++i) block = fold(block, one_block, lane[i]);
    for (; size >= 16; bytes += 16, size -= 16) block = fold(block, one_block, load_block(bytes));
    return remainder(block, one_block);
}

bool can_fold() {
    static const bool supported =
        __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
    return supported;
}
#else
uint32_t crc_by_folding(uint32_t value, const unsigned char *bytes, size_t size) {
    return crc_by_table(value, bytes, size);
}

bool can_fold() {
    return false;
}
#endif

}  // namespace

void crc_init() {
    std::call_once(table_init, build_crc_table);
}

uint32_t checksum_bytes(const void *bytes, size_t size) {
    crc_init();
    const auto *at = static_cast<const unsigned char *>(bytes);
    uint32_t value = 0xFFFFFFFF;
    if (size >= kFoldLeastBytes && can_fold()) {
        const size_t whole_blocks = size - size % 16;
        value = crc_by_folding(value, at, whole_blocks);
        at += whole_blocks;
        size -= whole_blocks;
    }
    return ~crc_by_table(value, at, size);
}

uint32_t computeChecksum(const char *bytes) {
    return checksum_bytes(bytes, kBlockBytes);
}
