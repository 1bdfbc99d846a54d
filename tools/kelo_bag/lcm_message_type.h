#ifndef KELO_TOOLS_KELO_BAG_LCM_MESSAGE_TYPE_H_
#define KELO_TOOLS_KELO_BAG_LCM_MESSAGE_TYPE_H_

#include <cstddef>
#include <string>
#include <unordered_map>
#include <vector>

namespace kelo {
namespace cli {

// The type name a recorded LCM message is filed under. Messages encoded by lcm-gen code
// begin with their type's 8-byte fingerprint (big-endian), which identifies the layout:
// the name is "lcm:0x" and those 8 bytes in hex, e.g. "lcm:0x1234abcd5678ef00". A payload
// shorter than 8 bytes cannot carry one and is filed under kShortLcmMessageType.
std::string LcmMessageType(const void* data, size_t size);

constexpr char kShortLcmMessageType[] = "lcm:short";
constexpr char kRawLcmMessageType[] = "lcm:raw";

// Types the messages of each channel, remembering what each channel carried. A channel
// whose payloads began with more than kMaxFingerprints different fingerprints does not
// carry lcm-gen messages (its first bytes are data, which change), and its messages are
// filed under kRawLcmMessageType from then on: such a channel makes a handful of bag
// channels, not one per message. One object per recording; not thread-safe.
class LcmTypeNamer {
 public:
  static constexpr size_t kMaxFingerprints = 8;

  std::string TypeOf(const std::string& channel, const void* data, size_t size);

 private:
  struct Seen {
    bool raw = false;
    std::vector<std::string> types;
  };
  std::unordered_map<std::string, Seen> channels_;
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_LCM_MESSAGE_TYPE_H_
