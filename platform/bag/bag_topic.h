#ifndef KELO_PLATFORM_BAG_BAG_TOPIC_H_
#define KELO_PLATFORM_BAG_BAG_TOPIC_H_

#include <string>

namespace kelo {

// A topic declared in a bag with one of its types. A topic whose type changed while it was
// recorded appears once per type.
struct BagTopic {
  std::string name;
  std::string type;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_TOPIC_H_
