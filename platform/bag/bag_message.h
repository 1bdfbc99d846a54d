#ifndef KELO_PLATFORM_BAG_BAG_MESSAGE_H_
#define KELO_PLATFORM_BAG_BAG_MESSAGE_H_

#include <string>

namespace kelo {

// One message read from a bag. It owns its bytes, so it stays valid after the reader that
// produced it is destroyed. Times are milliseconds, as they were given to the writer.
struct BagMessage {
  std::string topic;
  long time = 0;         // the message's own time; the bag's timeline
  std::string type;      // the topic's type name when the message was written
  std::string data;      // the serialized payload, byte for byte
  long record_time = 0;  // when the recorder accepted the message
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_MESSAGE_H_
