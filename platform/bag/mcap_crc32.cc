#include "platform/bag/mcap_crc32.h"

#include <zlib.h>

namespace kelo {
namespace mcap {

uint32_t Crc32Extend(uint32_t crc, const void* data, size_t size) {
  return static_cast<uint32_t>(crc32_z(crc, static_cast<const Bytef*>(data), size));
}

uint32_t Crc32Combine(uint32_t crc_a, uint32_t crc_b, uint64_t size_b) {
  return static_cast<uint32_t>(crc32_combine(crc_a, crc_b, static_cast<z_off_t>(size_b)));
}

}  // namespace mcap
}  // namespace kelo
