#ifndef KELO_TESTS_PLAY_PLAY_TEST_BAGS_H_
#define KELO_TESTS_PLAY_PLAY_TEST_BAGS_H_

#include <sys/time.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace testing_support {

// One message to write into a test bag. The payload defaults to "<topic>@<time>", which
// names the message in failure output.
struct TestMessage {
  TestMessage(long time, const std::string& topic, const std::string& data = "",
              const std::string& type = "demo.Raw")
      : time(time),
        topic(topic),
        data(data.empty() ? topic + "@" + std::to_string(time) : data),
        type(type) {}

  long time;
  std::string topic;
  std::string data;
  std::string type;
};

// Writes a completed bag "<dir>/<name>.kelobag" with `messages` (in the given order,
// which must be time order) and returns its path. Each topic is declared with the type
// of its first message, in order of first appearance.
inline std::string WriteBag(const TempDir& dir, const std::string& name,
                            const std::vector<TestMessage>& messages) {
  BagWriter writer(fileio::FilePath(dir.file(name + ".kelobag.active")));
  writer.open("");
  std::vector<std::string> declared;
  for (const TestMessage& m : messages) {
    bool known = false;
    for (const std::string& topic : declared) known = known || topic == m.topic;
    if (!known) {
      writer.append_topic(m.topic, m.type);
      declared.push_back(m.topic);
    }
    writer.append_message(m.time, m.time, m.topic, m.data, m.type);
  }
  const std::string path = writer.close();
  EXPECT_EQ(path, dir.file(name + ".kelobag"));
  return path;
}

// Messages on `topic` at every time of `times`.
inline std::vector<TestMessage> At(const std::string& topic, const std::vector<long>& times) {
  std::vector<TestMessage> messages;
  for (long time : times) messages.emplace_back(time, topic);
  return messages;
}

// The wall clock as the player reads it: milliseconds since the epoch, truncated.
inline int64_t WallMs() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int64_t>(static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000.0);
}

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_PLAY_PLAY_TEST_BAGS_H_
