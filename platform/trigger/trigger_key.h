#ifndef KELO_PLATFORM_TRIGGER_TRIGGER_KEY_H_
#define KELO_PLATFORM_TRIGGER_TRIGGER_KEY_H_

#include <string>

namespace kelo {

// A key shared by the senders and the recording nodes of one deployment: with one, a node
// takes only triggers signed with it, so that a process that does not know it (on this
// host or another) cannot make recorders save or delete anything.
//
//   TriggerKey key("s3cret");
//   std::string mac = key.Sign(time_ms, label);          // the sender
//   bool genuine = key.Verify(time_ms, label, mac);      // the node
//
// The signature is HMAC-SHA-256 over the trigger's time and label, in lowercase hex. A
// replayed trigger carries the same time as the original, so a node that merges duplicates
// and refuses stale triggers gains nothing from it. A plain value type.
class TriggerKey {
 public:
  TriggerKey() = default;
  explicit TriggerKey(const std::string& secret) : secret_(secret) {}

  // False for the empty key: nothing is signed, everything is taken.
  bool empty() const { return secret_.empty(); }

  std::string Sign(long time_ms, const std::string& label) const;
  // Whether `mac` is the signature of this time and label (compared in constant time).
  bool Verify(long time_ms, const std::string& label, const std::string& mac) const;

  // SHA-256 of `data`, 32 bytes; HMAC-SHA-256 of `data` under `key`, 32 bytes.
  static std::string Sha256(const std::string& data);
  static std::string Hmac(const std::string& key, const std::string& data);

 private:
  std::string secret_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_TRIGGER_TRIGGER_KEY_H_
