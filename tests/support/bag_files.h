#ifndef KELO_TESTS_SUPPORT_BAG_FILES_H_
#define KELO_TESTS_SUPPORT_BAG_FILES_H_

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bag/bag_message.h"
#include "platform/bag/bag_reader.h"

namespace kelo {
namespace testing_support {

// Every message of a bag, in the reader's order; fails the test when the bag has an error.
inline std::vector<BagMessage> ReadAll(const std::string& path) {
  BagReader reader(path);
  EXPECT_EQ(reader.get_error(), "") << path;
  std::vector<BagMessage> messages;
  for (; !reader.eof(); reader.next()) messages.push_back(*reader.read());
  return messages;
}

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_SUPPORT_BAG_FILES_H_
