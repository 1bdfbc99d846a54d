#ifndef KELO_TESTS_PLAY_PLAY_TEST_BAGS_H_
#define KELO_TESTS_PLAY_PLAY_TEST_BAGS_H_

#include <sys/time.h>

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "play/bag_play.h"
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
  writer.open("");
  std::set<std::string> declared;
  for (const TestMessage& m : messages) {
    if (declared.insert(m.topic).second) writer.append_topic(m.topic, m.type);
    writer.append_message(m.time, m.time, m.topic, m.data, m.type);
  }
  const std::string path = writer.close();
  EXPECT_EQ(path, dir.file(name + ".kelobag"));
  return path;
}

inline std::vector<TestMessage> At(const std::string& topic, const std::vector<long>& times) {
  std::vector<TestMessage> messages;
  for (long time : times) messages.emplace_back(time, topic);
  return messages;
}

// The wall clock as the player reads it: whole milliseconds since the epoch.
inline int64_t WallMs() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

// Records what a player delivers and reports, from whichever thread steps it.
class PlaybackLog {
 public:
  struct Delivery {
    long time;
    std::string topic, type, data;
    int64_t wall_ms;  // when the callback ran
    int step;         // which Step() delivered it
  };
  struct Timeline {
    bool paused;
    long bag_time;
    double elapsed_s;
  };

  void Attach(BagPlay* play) {
    play->SetMessageCallback([this](long time, const std::string& topic, const std::string& type,
                                    const std::string& data) {
      const int64_t now = WallMs();
      std::lock_guard<std::mutex> hold(mutex_);
      deliveries_.push_back(Delivery{time, topic, type, data, now, step_});
    });
    play->SetTimelineInfoCallback([this](bool paused, long bag_time, double elapsed_s, double) {
      std::lock_guard<std::mutex> hold(mutex_);
      timelines_.push_back(Timeline{paused, bag_time, elapsed_s});
    });
  }
  int Step(BagPlay* play) {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      ++step_;
    }
    return play->NotifyTimeline();
  }
  // Steps until "stop" (at most `limit` steps); returns the codes.
  std::vector<int> StepToStop(BagPlay* play, int limit = 1000) {
    std::vector<int> codes;
    while (static_cast<int>(codes.size()) < limit && (codes.empty() || codes.back() != BagPlay::kStopped)) {
      codes.push_back(Step(play));
    }
    return codes;
  }
  std::vector<Delivery> deliveries() {
    std::lock_guard<std::mutex> hold(mutex_);
    return deliveries_;
  }
  std::vector<Timeline> timelines() {
    std::lock_guard<std::mutex> hold(mutex_);
    return timelines_;
  }
  std::vector<std::string> data() {
    std::vector<std::string> out;
    for (const Delivery& d : deliveries()) out.push_back(d.data);
    return out;
  }
  std::vector<long> times() {
    std::vector<long> out;
    for (const Delivery& d : deliveries()) out.push_back(d.time);
    return out;
  }

 private:
  std::mutex mutex_;
  std::vector<Delivery> deliveries_;
  std::vector<Timeline> timelines_;
  int step_ = 0;
};

}  // namespace testing_support
}  // namespace kelo

#endif  // KELO_TESTS_PLAY_PLAY_TEST_BAGS_H_
