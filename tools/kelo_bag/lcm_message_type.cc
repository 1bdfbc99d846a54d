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

std::string LcmTypeNamer::TypeOf(const std::string& channel, const void* data, size_t size) {
  if (size < 8) return kShortLcmMessageType;
  Seen& seen = channels_[channel];
  if (seen.raw) return kRawLcmMessageType;
  std::string type = LcmMessageType(data, size);
  for (const std::string& known : seen.types) {
    if (known == type) return type;
  }
  if (seen.types.size() < kMaxFingerprints) {
    seen.types.push_back(type);
    return type;
  }
  seen.raw = true;
  seen.types.clear();
  return kRawLcmMessageType;
}

}  // namespace cli
}  // namespace kelo
