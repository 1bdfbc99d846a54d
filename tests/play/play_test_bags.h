#ifndef KELO_TESTS_PLAY_PLAY_TEST_BAGS_H_
#define KELO_TESTS_PLAY_PLAY_TEST_BAGS_H_

#include <string>
#include <vector>

#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace testing_support {

// One message of a test bag; the payload defaults to "<topic>@<time>".
struct TestMessage {
  TestMessage(long time, const std::string& topic, const std::string& data = "",
              const std::string& type = "demo.Raw")
      : time(time), topic(topic), data(data.empty() ? topic + "@" + std::to_string(time) : data), type(type) {}
  long time;
  std::string topic, data, type;
};

// Writes the completed bag "<dir>/<name>.kelobag" (messages in time order); returns its path.
inline std::string WriteBag(const TempDir& dir, const std::string& name,
                            const std::vector<TestMessage>& messages) {
  BagWriter writer(fileio::FilePath(dir.file(name + ".kelobag.active")));
  for (const TestMessage& m : messages) writer.append_message(m.time, m.time, m.topic, m.data, m.type);
  return writer.close();
}

inline std::vector<TestMessage> At(const std::string& topic, const std::vector<long>& times) {
  std::vector<TestMessage> messages;
  for (long time : times) messages.emplace_back(time, topic);
  return messages;
}

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_PLAY_PLAY_TEST_BAGS_H_
