// The kelo_bag command against a live LCM bus, run in a private network namespace: a real
// LCM publisher, the recorder, the monitor, playback onto the bus and triggers.

#include <signal.h>

#include <chrono>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <lcm/eventlog.h>

#include "platform/bag/bag_message.h"
#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"
#include "tests/support/subprocess.h"
#include "tools/kelo_bag/files.h"
#include "tools/kelo_bag/lcm_bus.h"
#include "tools/kelo_bag/lcm_message_type.h"

namespace kelo {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using testing_support::ReadAll;
using testing_support::RunResult;
using testing_support::RunToEnd;
using testing_support::Subprocess;
using testing_support::TempDir;
using testing_support::WaitFor;

const std::string kKeloBag = KELO_BAG;

struct TrafficMessage { std::string channel, payload; };

// Traffic of a live publisher: `rounds` rounds of one message of every channel, 5 bytes to
// 1 MB, the 1 MB one only every `large_every` rounds; every payload different. One of 8
// bytes or more begins with the first 8 bytes of its channel's name: one LCM type a channel.
std::vector<TrafficMessage> MakeTraffic(int rounds, int large_every = 4) {
  const std::vector<std::pair<std::string, size_t>> sizes = {
      {"TINY", 10}, {"SHORT", 5}, {"/imu", 64}, {"/scan", 10 * 1024}, {"CAMERA.front", 1 << 20}};
  std::vector<TrafficMessage> traffic;
  for (int round = 0; round < rounds; ++round) {
    for (const auto& [channel, bytes] : sizes) {
      if (bytes >= (1 << 20) && round % large_every != 0) continue;
      const unsigned seed = static_cast<unsigned>(traffic.size());
      const std::string type = bytes < 8 ? "" : (channel + std::string(8, '\0')).substr(0, 8);
      traffic.push_back({channel, type + testing_support::Noise(bytes - type.size(), seed)});
    }
  }
  return traffic;
}

// Publishes `traffic` in order, a round about every 20 ms.
void Publish(const std::vector<TrafficMessage>& traffic) {
  std::string error;
  std::unique_ptr<cli::LcmBus> bus = cli::LcmBus::Open(cli::BusUrl(""), &error);
  ASSERT_NE(nullptr, bus) << error;
  for (const TrafficMessage& m : traffic) {
    if (m.channel == "TINY") std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(bus->Publish(m.channel, m.payload));
  }
}

// Waits until `kelo_bag monitor --once --json` says the recorder `node` has taken
// `messages` messages and written them all; returns what it said of that recorder.
Json::Value WaitForRecorder(const TempDir& dir, const std::string& node, uint64_t messages) {
  Json::Value seen;
  EXPECT_TRUE(WaitFor([&] {
    const RunResult monitor = RunToEnd({kKeloBag, "monitor", "--once", "--json", "--wait", "300"}, dir.file("monitor"));
    EXPECT_EQ(0, monitor.code) << monitor.err;
    Json::Value document;
    Json::Reader().parse(monitor.out, document);
    for (const Json::Value& recorder : document["recorders"])
      if (recorder["node"].asString() == node) seen = recorder;
    return seen["messages"].asUInt64() == messages && seen["queue"].asInt() == 0;
  }, 30000)) << node << ": " << seen.toStyledString();
  return seen;
}

// Whether `bags`, read in order, hold each channel of `traffic` with its messages in order
// and its LCM type, time never going back.
testing::AssertionResult HoldTraffic(const std::vector<std::string>& bags, const std::vector<TrafficMessage>& traffic) {
  std::map<std::string, std::vector<std::string>> want, got;
  for (const TrafficMessage& m : traffic) want[m.channel].push_back(m.payload);
  long last_time = 0;
  for (const std::string& bag : bags) {
    for (const BagMessage& m : ReadAll(bag)) {
      if (m.time < last_time) return testing::AssertionFailure() << bag << ": time goes back at " << m.time;
      if (m.type != cli::LcmMessageType(m.data.data(), m.data.size()))
        return testing::AssertionFailure() << m.topic << " has type " << m.type;
      last_time = m.time;
      got[m.topic].push_back(m.data);
    }
  }
  for (const auto& [channel, payloads] : want)
    if (got[channel] != payloads)
      return testing::AssertionFailure() << channel << ": " << got[channel].size() << " of " << payloads.size()
                                         << " messages, or other bytes";
  if (got.size() != want.size()) return testing::AssertionFailure() << got.size() << " channels";
  return testing::AssertionSuccess();
}

// Both kinds of recorder on one live publisher: the continuous one keeps every message in
// parts of a second, the trigger-mode one saves the window around `kelo_bag trigger`; both
// answer the monitor (one on the interface named) and complete their files on SIGTERM and SIGINT.
TEST(KeloBagLiveTest, RecordersTakeEveryMessageOfALivePublisherAndATriggerSavesTheWindow) {
  TempDir dir;
  const RunResult unanswered = RunToEnd({kKeloBag, "trigger"}, dir.file("trigger"));
  EXPECT_EQ(1, unanswered.code) << unanswered.err;
  EXPECT_THAT(unanswered.out, HasSubstr("no trigger-mode recorder answered"));
  // A bus that fails (an LCM log file that ends) stops a trigger-mode recording too, and says so.
  lcm_eventlog_t* log = lcm_eventlog_create(dir.file("bus.lcmlog").c_str(), "w");
  char channel[] = "/seq", data[] = "payload!";
  lcm_eventlog_event_t event{0, 1700000000000000L, 4, 8, channel, data};
  ASSERT_TRUE(log != nullptr && lcm_eventlog_write_event(log, &event) == 0);
  lcm_eventlog_destroy(log);
  const std::string ended_bus = "file://" + dir.file("bus.lcmlog") + "?mode=r&speed=0";
  const RunResult ended = RunToEnd(
      {kKeloBag, "record", "--trigger", "-a", "--url", ended_bus, "-o", dir.file("ended") + "/"}, dir.file("ended"));
  EXPECT_EQ(1, ended.code);
  EXPECT_EQ("record: the LCM bus failed; stopping\n", ended.err);

  const std::string rec_dir = dir.file("rec"), trig_dir = dir.file("trig");
  Subprocess record(
      {kKeloBag, "record", "-a", "-o", rec_dir + "/", "-s", "1", "-n", "live_node", "--interface", "lo"},
      dir.file("record"));
  // The window reaches 60 s back, past any wait of a loaded machine, and 1 s past the trigger.
  Subprocess cache({kKeloBag, "record", "-a", "--trigger", "-o", trig_dir + "/", "--reserve", "60", "--duration",
                    "61", "-n", "trig_node"}, dir.file("cache"));
  ASSERT_TRUE(record.Prints("recording every channel") && cache.Prints("caching every channel"))
      << record.Stderr() << cache.Stderr();
  EXPECT_THAT(cache.Stdout(), StartsWith("caching every channel")) << "no debug line first";

  // About three seconds of traffic, so that the one-second split makes several parts.
  const std::vector<TrafficMessage> traffic = MakeTraffic(150);
  Publish(traffic);
  const Json::Value seen = WaitForRecorder(dir, "live_node", traffic.size());
  EXPECT_EQ(0u, seen["lost"].asUInt64());
  EXPECT_EQ(5u, seen["topics"].size());
  EXPECT_EQ("continuous", seen["mode"].asString());
  EXPECT_THAT(seen["current_file"].asString(), StartsWith(rec_dir + "/bag_"));
  // The trigger-mode recorder keeps statistics of its own: for itself and for every topic.
  const Json::Value cached = WaitForRecorder(dir, "trig_node", traffic.size());
  EXPECT_EQ("trigger", cached["mode"].asString());
  EXPECT_GT(cached["record_time_s"].asDouble(), 0.0);
  EXPECT_GT(cached["total_bytes"].asUInt64(), 0u);
  for (const Json::Value& topic : cached["topics"])
    EXPECT_GT(topic["total_bytes"].asUInt64(), 0u) << topic["topic"].asString();

  const RunResult trigger = RunToEnd({kKeloBag, "trigger", "--label", "brake"}, dir.file("trigger"));
  ASSERT_EQ(0, trigger.code) << trigger.out << trigger.err;
  EXPECT_THAT(trigger.out, HasSubstr("1 of 1 recorders saved a file"));
  std::smatch said;
  const std::regex saved_line(R"(trig_node \(bag_record at 127\.0\.0\.1\): saved (.*))");
  ASSERT_TRUE(std::regex_search(trigger.out, said, saved_line)) << trigger.out;
  const std::string saved = said[1];
  EXPECT_THAT(saved, testing::AllOf(StartsWith(trig_dir + "/"), EndsWith("_brake.kelobag")));
  EXPECT_THAT(cache.Stdout(), HasSubstr("trigger bag: "));
  EXPECT_THAT(RunToEnd({kKeloBag, "info", saved}, dir.file("info")).out, HasSubstr("\nmode:        trigger\n"));
  EXPECT_TRUE(HoldTraffic({saved}, traffic));

  for (const auto& [recorder, stop] : {std::make_pair(&record, SIGTERM), std::make_pair(&cache, SIGINT)}) {
    recorder->Signal(stop);
    ASSERT_EQ(0, recorder->Wait(60000)) << recorder->Stdout() << recorder->Stderr();
    EXPECT_THAT(recorder->Stdout(), EndsWith("none lost\n"));
  }
  EXPECT_THAT(record.Stdout(), HasSubstr("\nreceived " + std::to_string(traffic.size()) + " messages"));
  for (const std::string& name : testing_support::ListDir(rec_dir)) EXPECT_THAT(name, EndsWith(".kelobag"));
  const std::vector<std::string> parts = cli::ListBags(rec_dir);
  EXPECT_GE(parts.size(), 3u);
  EXPECT_TRUE(HoldTraffic(parts, traffic));
}

// Two bags that interleave in time go onto the bus merged in time order, renamed where
// --remap says; a recorder on the bus takes them.
TEST(KeloBagLiveTest, PlayPublishesBagsMergedInTimeOrderAndRemapped) {
  TempDir dir;
  const std::vector<TrafficMessage> traffic = MakeTraffic(40, 5);
  std::vector<std::string> bags;
  for (int b = 0; b < 2; ++b) {
    BagWriter writer(fileio::FilePath(dir.file("part" + std::to_string(b) + ".kelobag.active")));
    writer.open("");
    for (size_t i = b; i < traffic.size(); i += 2)
      writer.append_message(1700000000000 + static_cast<long>(i) * 10, 0, traffic[i].channel, traffic[i].payload,
                            "lcm:test");
    bags.push_back(writer.close());
  }
  Subprocess record({kKeloBag, "record", "-a", "-o", dir.file("got.kelobag"), "-n", "replay_node"},
                    dir.file("record"));
  ASSERT_TRUE(record.Prints("recording every channel")) << record.Stderr();
  const RunResult play =
      RunToEnd({kKeloBag, "play", "--publish", "--remap", "/imu:=/imu/replayed", bags[1], bags[0]}, dir.file("play"));
  ASSERT_EQ(0, play.code) << play.err;
  EXPECT_THAT(play.out, HasSubstr("played " + std::to_string(traffic.size()) + " messages"));
  WaitForRecorder(dir, "replay_node", traffic.size());
  record.Signal(SIGINT);
  ASSERT_EQ(0, record.Wait(60000)) << record.Stderr();
  // Each channel's messages alternate between the two bags: in order only if they were merged.
  std::vector<TrafficMessage> remapped = traffic;
  for (TrafficMessage& m : remapped) m.channel = m.channel == "/imu" ? "/imu/replayed" : m.channel;
  EXPECT_TRUE(HoldTraffic({dir.file("got.kelobag")}, remapped));
}

}  // namespace
}  // namespace kelo
