#ifndef KELO_PLATFORM_BAG_BAG_TOPIC_H_
#define KELO_PLATFORM_BAG_BAG_TOPIC_H_

#include <cstdint>
#include <string>

namespace kelo {

// A topic declared in a bag with one of its types. A topic whose type changed while it was
// recorded appears once per type.
struct BagTopic {
  std::string name;
  std::string type;
  // What the bag's index says of its messages: how many, and the times (ms) of the first
  // and last; 0 for a topic without messages.
  uint64_t messages = 0;
  long first_time = 0;
  long last_time = 0;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_TOPIC_H_
