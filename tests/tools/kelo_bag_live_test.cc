// The kelo_bag command against a live LCM bus, run in a private network namespace: a real
// LCM publisher, the recorder, the monitor, playback onto the bus and triggers.

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>

#include "platform/bag/bag_message.h"
#include "platform/bag/bag_reader.h"
#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"
#include "tests/tools/lcm_traffic.h"
#include "tests/tools/subprocess.h"
#include "tools/kelo_bag/files.h"
#include "tools/kelo_bag/lcm_bus.h"
#include "tools/kelo_bag/lcm_message_type.h"

namespace kelo {
namespace {

using testing_support::MakeTraffic;
using testing_support::PublishTraffic;
using testing_support::ReadAll;
using testing_support::RunToEnd;
using testing_support::Subprocess;
using testing_support::TempDir;
using testing_support::TrafficMessage;
using testing_support::WaitFor;

const std::string kKeloBag = KELO_BAG;

std::unique_ptr<cli::LcmBus> OpenBus() {
  std::string error;
  std::unique_ptr<cli::LcmBus> bus = cli::LcmBus::Open(cli::BusUrl(""), &error);
  EXPECT_NE(nullptr, bus) << error;
  return bus;
}

Json::Value ParseJson(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return Json::Value();
  return value;
}

// What `kelo_bag monitor --once --json` says about the recorder `node`; null when it is
// not among the answers.
Json::Value MonitorEntry(const TempDir& dir, const std::string& node) {
  std::string out, err;
  const int code =
      RunToEnd({kKeloBag, "monitor", "--once", "--json", "--wait", "300"}, dir.file("monitor"), &out, &err);
  if (code != 0) {
    ADD_FAILURE() << "monitor exited with " << code << ": " << err;
    return Json::Value();
  }
  const Json::Value document = ParseJson(out);
  for (const Json::Value& recorder : document["recorders"]) {
    if (recorder["node"].asString() == node) return recorder;
  }
  return Json::Value();
}

// The messages of `traffic`, channel by channel, in the order they were published.
std::map<std::string, std::vector<std::string>> ByChannel(const std::vector<TrafficMessage>& traffic) {
  std::map<std::string, std::vector<std::string>> out;
  for (const TrafficMessage& m : traffic) out[m.channel].push_back(m.payload);
  return out;
}

TEST(KeloBagLiveTest, RecordsEveryChannelOfALivePublisherAndCompletesEveryPartOnSigint) {
  TempDir dir;
  const std::string out_dir = dir.file("rec");
  Subprocess record({kKeloBag, "record", "-a", "-o", out_dir + "/", "-s", "1", "-n", "live_node"},
                    dir.file("record"));
  ASSERT_TRUE(
      WaitFor([&] { return record.Stdout().find("recording every channel") != std::string::npos; }, 20000))
      << record.Stdout() << record.Stderr();

  // About three seconds of traffic, so that the one-second split makes several parts.
  const std::vector<TrafficMessage> traffic = MakeTraffic(150);
  std::unique_ptr<cli::LcmBus> bus = OpenBus();
  ASSERT_TRUE(PublishTraffic(bus.get(), traffic, 20));

  // Everything published reaches the recorder, as the monitor shows.
  Json::Value seen;
  ASSERT_TRUE(WaitFor(
      [&] {
        seen = MonitorEntry(dir, "live_node");
        return seen["messages"].asUInt64() == traffic.size();
      },
      30000))
      << "monitor: " << seen.toStyledString() << "\n"
      << record.Stdout() << record.Stderr();
  EXPECT_EQ(0, seen["drops"].asInt());
  EXPECT_EQ(5u, seen["topics"].size());
  EXPECT_NE(std::string::npos, seen["file"].asString().find(out_dir + "/bag_")) << seen["file"].asString();

  record.Signal(SIGINT);
  ASSERT_EQ(0, record.Wait(60000)) << record.Stdout() << record.Stderr();
  EXPECT_NE(std::string::npos,
            record.Stdout().find("recorded " + std::to_string(traffic.size()) + " messages"))
      << record.Stdout();

  // Every part completed; read in order, they hold each channel's messages in order.
  for (const std::string& name : dir.List()) EXPECT_EQ(std::string::npos, name.find(".active")) << name;
  const std::vector<std::string> parts = cli::ListBags(out_dir);
  ASSERT_GE(parts.size(), 3u);
  std::map<std::string, std::vector<std::string>> got;
  long last_time = 0;
  for (const std::string& part : parts) {
    for (const BagMessage& m : ReadAll(part)) {
      EXPECT_GE(m.time, last_time) << part;
      last_time = m.time;
      EXPECT_EQ(cli::LcmMessageType(m.data.data(), m.data.size()), m.type);
      got[m.topic].push_back(m.data);
    }
  }
  const auto want = ByChannel(traffic);
  ASSERT_EQ(want.size(), got.size());
  for (const auto& channel : want) {
    ASSERT_EQ(channel.second.size(), got[channel.first].size()) << channel.first;
    EXPECT_TRUE(channel.second == got[channel.first]) << channel.first << " differs";
  }
}

TEST(KeloBagLiveTest, RecordsOnlyTheNamedTopicsTakingNamesLiterally) {
  TempDir dir;
  const std::string out_dir = dir.file("rec");
  // "CAMERA.front" would, as a pattern, also match "CAMERAxfront".
  Subprocess record({kKeloBag, "record", "-o", out_dir + "/", "-n", "named_node", "TINY", "CAMERA.front"},
                    dir.file("record"));
  ASSERT_TRUE(
      WaitFor([&] { return record.Stdout().find("recording 2 topic(s)") != std::string::npos; }, 20000))
      << record.Stdout() << record.Stderr();
  std::unique_ptr<cli::LcmBus> bus = OpenBus();
  const std::vector<TrafficMessage> traffic = MakeTraffic(8, 1);
  ASSERT_TRUE(PublishTraffic(bus.get(), traffic, 5));
  ASSERT_TRUE(bus->Publish("CAMERAxfront", "not this one"));
  const size_t wanted = 16;  // 8 rounds of TINY and CAMERA.front
  Json::Value seen;
  ASSERT_TRUE(WaitFor(
      [&] {
        seen = MonitorEntry(dir, "named_node");
        return seen["messages"].asUInt64() == wanted;
      },
      30000))
      << "monitor: " << seen.toStyledString();
  record.Signal(SIGTERM);
  ASSERT_EQ(0, record.Wait(60000)) << record.Stderr();
  const std::vector<std::string> parts = cli::ListBags(out_dir);
  ASSERT_EQ(1u, parts.size());
  std::map<std::string, size_t> counts;
  for (const BagMessage& m : ReadAll(parts[0])) ++counts[m.topic];
  EXPECT_EQ((std::map<std::string, size_t>{{"CAMERA.front", 8}, {"TINY", 8}}), counts);
}

// Collects what arrives on the bus, on a thread of its own.
class Subscriber {
 public:
  Subscriber() : bus_(OpenBus()) {
    bus_->Subscribe({}, [this](const cli::LcmBus::Message& m) {
      std::lock_guard<std::mutex> hold(mutex_);
      received_.push_back({m.channel, std::string(static_cast<const char*>(m.data), m.size)});
    });
    thread_ = std::thread([this] {
      while (!stop_.load()) bus_->Handle(50);
    });
  }
  ~Subscriber() {
    stop_.store(true);
    thread_.join();
  }
  std::vector<TrafficMessage> received() {
    std::lock_guard<std::mutex> hold(mutex_);
    return received_;
  }

 private:
  std::unique_ptr<cli::LcmBus> bus_;
  std::mutex mutex_;
  std::vector<TrafficMessage> received_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST(KeloBagLiveTest, PlayPublishDeliversEveryMessageToASubscriberInBagOrder) {
  TempDir dir;
  // Two bags that interleave in time: playback merges them.
  const std::vector<TrafficMessage> traffic = MakeTraffic(40, 5);
  std::vector<std::string> bags;
  for (int b = 0; b < 2; ++b) {
    BagWriter writer(fileio::FilePath(dir.file("part" + std::to_string(b) + ".kelobag.active")));
    writer.open("");
    for (size_t i = b; i < traffic.size(); i += 2) {
      writer.append_message(1700000000000 + static_cast<long>(i) * 10, 0, traffic[i].channel,
                            traffic[i].payload, "lcm:test");
    }
    bags.push_back(writer.close());
  }
  Subscriber subscriber;
  std::string out, err;
  ASSERT_EQ(0, RunToEnd({kKeloBag, "play", "--publish", bags[1], bags[0]}, dir.file("play"), &out, &err))
      << err;
  EXPECT_NE(std::string::npos, out.find("played " + std::to_string(traffic.size()) + " messages")) << out;
  ASSERT_TRUE(WaitFor([&] { return subscriber.received().size() >= traffic.size(); }, 10000))
      << subscriber.received().size();
  const std::vector<TrafficMessage> received = subscriber.received();
  ASSERT_EQ(traffic.size(), received.size());
  for (size_t i = 0; i < traffic.size(); ++i) {
    ASSERT_EQ(traffic[i].channel, received[i].channel) << "message " << i;
    ASSERT_TRUE(traffic[i].payload == received[i].payload) << "message " << i;
  }
}

TEST(KeloBagLiveTest, PlayPublishesOnlyTheChosenTopics) {
  TempDir dir;
  const std::vector<TrafficMessage> traffic = MakeTraffic(10, 100);
  BagWriter writer(fileio::FilePath(dir.file("bag.kelobag.active")));
  writer.open("");
  for (size_t i = 0; i < traffic.size(); ++i) {
    writer.append_message(1700000000000 + static_cast<long>(i), 0, traffic[i].channel, traffic[i].payload,
                          "t");
  }
  const std::string bag = writer.close();
  Subscriber subscriber;
  std::string out, err;
  ASSERT_EQ(0, RunToEnd({kKeloBag, "play", "--publish", "--topics", "TINY,/imu", bag}, dir.file("play"), &out,
                        &err))
      << err;
  ASSERT_TRUE(WaitFor([&] { return subscriber.received().size() >= 20; }, 10000));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // nothing else may follow
  std::map<std::string, size_t> counts;
  for (const TrafficMessage& m : subscriber.received()) ++counts[m.channel];
  EXPECT_EQ((std::map<std::string, size_t>{{"/imu", 10}, {"TINY", 10}}), counts);
}

TEST(KeloBagLiveTest, TriggerMakesATriggerModeRecorderSaveTheWindowAroundIt) {
  TempDir dir;
  const std::string out_dir = dir.file("trig");
  // The window reaches 3 s back and 1 s past the trigger.
  Subprocess record({kKeloBag, "record", "-a", "--trigger", "-o", out_dir + "/", "--reserve", "3",
                     "--duration", "4", "-n", "trig_node"},
                    dir.file("record"));
  ASSERT_TRUE(
      WaitFor([&] { return record.Stdout().find("caching every channel") != std::string::npos; }, 20000))
      << record.Stdout() << record.Stderr();
  const std::vector<TrafficMessage> traffic = MakeTraffic(50);
  std::unique_ptr<cli::LcmBus> bus = OpenBus();
  ASSERT_TRUE(PublishTraffic(bus.get(), traffic, 20));
  // Let the recorder take in the last messages before the trigger time is taken.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));

  std::string out, err;
  ASSERT_EQ(0, RunToEnd({kKeloBag, "trigger", "--label", "brake"}, dir.file("trigger"), &out, &err))
      << out << err;
  const std::string said = "trig_node (bag_record at 127.0.0.1): saved ";
  const size_t at = out.find(said);
  ASSERT_NE(std::string::npos, at) << out;
  const std::string saved = out.substr(at + said.size(), out.find('\n', at) - at - said.size());
  EXPECT_EQ(0u, saved.find(out_dir + "/")) << saved;
  EXPECT_NE(std::string::npos, saved.find("_brake.kelobag")) << saved;
  EXPECT_NE(std::string::npos, out.find("1 of 1 recorders saved a file")) << out;
  EXPECT_NE(std::string::npos, record.Stdout().find("trigger bag: ")) << record.Stdout();

  std::map<std::string, std::vector<std::string>> got;
  for (const BagMessage& m : ReadAll(saved)) got[m.topic].push_back(m.data);
  const auto want = ByChannel(traffic);
  for (const auto& channel : want) EXPECT_TRUE(channel.second == got[channel.first]) << channel.first;

  record.Signal(SIGINT);
  EXPECT_EQ(0, record.Wait(60000)) << record.Stderr();
}

TEST(KeloBagLiveTest, TriggerWithoutRecordersSaysSoAndFails) {
  TempDir dir;
  std::string out, err;
  EXPECT_EQ(1, RunToEnd({kKeloBag, "trigger"}, dir.file("trigger"), &out, &err)) << out << err;
  EXPECT_NE(std::string::npos, out.find("no trigger-mode recorder answered")) << out;
}

}  // namespace
}  // namespace kelo
