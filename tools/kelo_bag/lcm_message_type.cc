#include "tools/kelo_bag/lcm_message_type.h"

namespace kelo {
namespace cli {

std::string LcmMessageType(const void* data, size_t size) {
  static const char kHex[] = "0123456789abcdef";
  if (size < 8) return kShortLcmMessageType;
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  std::string type = "lcm:0x";
  for (size_t i = 0; i < 8; ++i) {
    type += kHex[bytes[i] >> 4];
    type += kHex[bytes[i] & 0x0f];
  }
  return type;
}

}  // namespace cli
}  // namespace kelo
