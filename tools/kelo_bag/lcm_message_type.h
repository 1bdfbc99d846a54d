#ifndef KELO_TOOLS_KELO_BAG_LCM_MESSAGE_TYPE_H_
#define KELO_TOOLS_KELO_BAG_LCM_MESSAGE_TYPE_H_

#include <cstddef>
#include <string>

namespace kelo {
namespace cli {

// The type name a recorded LCM message is filed under. Messages encoded by lcm-gen code
// begin with their type's 8-byte fingerprint (big-endian), which identifies the layout:
// the name is "lcm:0x" and those 8 bytes in hex, e.g. "lcm:0x1234abcd5678ef00". A payload
// shorter than 8 bytes cannot carry one and is filed under kShortLcmMessageType.
std::string LcmMessageType(const void* data, size_t size);

constexpr char kShortLcmMessageType[] = "lcm:short";

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_LCM_MESSAGE_TYPE_H_
