#ifndef KELO_PLATFORM_BAG_MCAP_CRC32_H_
#define KELO_PLATFORM_BAG_MCAP_CRC32_H_

#include <cstddef>
#include <cstdint>

namespace kelo {
namespace mcap {

// The CRC-32 that MCAP uses (zlib's): Crc32Extend(0, ...) starts a new one, and extending a
// CRC with more bytes gives the CRC of the concatenation. Safe from any thread.
uint32_t Crc32Extend(uint32_t crc, const void* data, size_t size);

inline uint32_t Crc32(const void* data, size_t size) { return Crc32Extend(0, data, size); }

// The CRC of A followed by B, from crc(A), crc(B) and B's length, without touching B again.
uint32_t Crc32Combine(uint32_t crc_a, uint32_t crc_b, uint64_t size_b);

}  // namespace mcap
}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_MCAP_CRC32_H_
