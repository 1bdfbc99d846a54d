#ifndef KELO_TESTS_PLAY_PLAYBACK_LOG_H_
#define KELO_TESTS_PLAY_PLAYBACK_LOG_H_

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "play/bag_play.h"
#include "tests/play/play_test_bags.h"

namespace kelo {
namespace testing_support {

// Records what a player delivers and reports, from whichever thread steps it.
class PlaybackLog {
 public:
  struct Delivery {
    long time;
    std::string topic;
    std::string type;
    std::string data;
    int64_t wall_ms;  // wall clock when the callback ran
    int step;         // which Step() delivered it
  };
  struct Timeline {
    bool paused;
    long bag_time;
    double elapsed_s;
    double duration_s;
  };

  // Installs both callbacks on `play`.
  void Attach(BagPlay* play) {
    play->SetMessageCallback(MessageCallback());
    play->SetTimelineInfoCallback([this](bool paused, long bag_time, double elapsed_s, double duration_s) {
      std::lock_guard<std::mutex> hold(mutex_);
      timelines_.push_back(Timeline{paused, bag_time, elapsed_s, duration_s});
    });
  }

  BagPlay::MessageCallback MessageCallback() {
    return [this](long time, const std::string& topic, const std::string& type, const std::string& data) {
      const int64_t now = WallMs();
      std::lock_guard<std::mutex> hold(mutex_);
      deliveries_.push_back(Delivery{time, topic, type, data, now, step_});
    };
  }

  // One NotifyTimeline(), numbered for the deliveries it makes.
  int Step(BagPlay* play) {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      ++step_;
    }
    return play->NotifyTimeline();
  }

  std::vector<Delivery> deliveries() {
    std::lock_guard<std::mutex> hold(mutex_);
    return deliveries_;
  }
  std::vector<Timeline> timelines() {
    std::lock_guard<std::mutex> hold(mutex_);
    return timelines_;
  }
  // The payloads delivered so far, in order.
  std::vector<std::string> data() {
    std::lock_guard<std::mutex> hold(mutex_);
    std::vector<std::string> out;
    for (const Delivery& d : deliveries_) out.push_back(d.data);
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

#endif  // KELO_TESTS_PLAY_PLAYBACK_LOG_H_
