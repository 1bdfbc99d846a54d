// The kelo_bag command against a live LCM bus, run in a private network namespace: a real
// LCM publisher, the recorder, the monitor, playback onto the bus and triggers.

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
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
#include "tests/support/mounts.h"
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
using testing_support::ScopedMount;
using testing_support::Subprocess;
using testing_support::TempDir;
using testing_support::TrafficMessage;
using testing_support::WaitFor;

const std::string kKeloBag = KELO_BAG;

bool EndsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

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
  EXPECT_EQ(0u, seen["lost"].asUInt64());
  EXPECT_EQ(5u, seen["topics"].size());
  EXPECT_EQ("continuous", seen["mode"].asString());
  EXPECT_NE(std::string::npos, seen["current_file"].asString().find(out_dir + "/bag_"))
      << seen["current_file"].asString();

  record.Signal(SIGINT);
  ASSERT_EQ(0, record.Wait(60000)) << record.Stdout() << record.Stderr();
  const std::string said = record.Stdout();
  EXPECT_NE(std::string::npos, said.find("\nreceived " + std::to_string(traffic.size()) + " messages"))
      << said;
  EXPECT_TRUE(EndsWith(said, "none lost\n")) << said;

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

// A folder that cannot be written is refused at once; a disk that fills up loses what it
// must, counts it, and says so last, with a non-zero exit.
TEST(KeloBagLiveTest, RecordRefusesAnUnwritableFolderAndTellsWhatAFullDiskLost) {
  TempDir dir;
  const std::string locked = dir.file("locked"), small = dir.file("small");
  ASSERT_EQ(0, ::mkdir(locked.c_str(), 0755));
  ASSERT_EQ(0, ::mkdir(small.c_str(), 0755));
  ScopedMount read_only = ScopedMount::ReadOnly(locked);
  std::string out, err;
  EXPECT_EQ(1, RunToEnd({kKeloBag, "record", "-a", "-o", locked + "/"}, dir.file("locked"), &out, &err));
  EXPECT_EQ("record: cannot write in " + locked + ": Read-only file system; nothing recorded\n", err);
  EXPECT_EQ("", out);

  ScopedMount disk = ScopedMount::SmallDisk(small, 8 << 20);
  Subprocess record({kKeloBag, "record", "-o", small + "/", "-n", "full_node", "BIG"}, dir.file("record"));
  ASSERT_TRUE(WaitFor([&] { return record.Stdout().find("recording 1 topic") != std::string::npos; }, 20000))
      << record.Stderr();
  Subprocess publish({KELO_LCM_PUBLISH, cli::BusUrl(""), "BIG", "1500", "10000", "1000"},
                     dir.file("publish"));
  ASSERT_EQ(0, publish.Wait(60000)) << publish.Stderr();
  Json::Value seen;
  ASSERT_TRUE(WaitFor(
      [&] {
        seen = MonitorEntry(dir, "full_node");
        return seen["messages"].asUInt64() == 1500 && seen["queue"].asInt() == 0;
      },
      30000))
      << seen.toStyledString();
  EXPECT_NE(std::string::npos, seen["problems"].asString().find("disk full")) << seen.toStyledString();
  record.Signal(SIGINT);
  EXPECT_EQ(1, record.Wait(60000)) << record.Stdout() << record.Stderr();
  const std::string said = record.Stdout();
  const size_t at = said.rfind("received 1500 messages");
  ASSERT_NE(std::string::npos, at) << said;
  const std::string last = said.substr(at);
  unsigned long long lost = 0;
  ASSERT_EQ(1, std::sscanf(last.c_str(), "received 1500 messages (%*[^)]); %llu of them lost", &lost))
      << last;
  EXPECT_TRUE(EndsWith(said, "lost: " + std::to_string(lost) + " disk full\n")) << last;
  // What the files hold and what they say was lost make up everything published.
  uint64_t kept = 0, lost_in_files = 0;
  for (const std::string& bag : cli::ListBags(small)) {
    kept += ReadAll(bag).size();
    lost_in_files += testing_support::LossesIn(bag).total();
  }
  EXPECT_EQ(1500u, kept + lost);
  EXPECT_EQ(lost, lost_in_files);
  for (const std::string& name : testing_support::ListDir(small))
    EXPECT_TRUE(EndsWith(name, ".kelobag")) << name;
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
  ASSERT_EQ(0, RunToEnd({kKeloBag, "play", "--publish", "--remap", "/imu:=/imu/replayed", bags[1], bags[0]},
                        dir.file("play"), &out, &err))
      << err;
  EXPECT_NE(std::string::npos, out.find("played " + std::to_string(traffic.size()) + " messages")) << out;
  ASSERT_TRUE(WaitFor([&] { return subscriber.received().size() >= traffic.size(); }, 10000))
      << subscriber.received().size();
  const std::vector<TrafficMessage> received = subscriber.received();
  ASSERT_EQ(traffic.size(), received.size());
  for (size_t i = 0; i < traffic.size(); ++i) {
    ASSERT_EQ(traffic[i].channel == "/imu" ? "/imu/replayed" : traffic[i].channel, received[i].channel) << i;
    ASSERT_TRUE(traffic[i].payload == received[i].payload) << "message " << i;
  }
}

TEST(KeloBagLiveTest, TriggerMakesATriggerModeRecorderSaveTheWindowAroundIt) {
  TempDir dir;
  const std::string out_dir = dir.file("trig");
  // The window reaches 60 s back, past any wait of a loaded machine, and 1 s past the trigger.
  Subprocess record({kKeloBag, "record", "-a", "--trigger", "-o", out_dir + "/", "--reserve", "60",
                     "--duration", "61", "-n", "trig_node"},
                    dir.file("record"));
  ASSERT_TRUE(
      WaitFor([&] { return record.Stdout().find("caching every channel") != std::string::npos; }, 20000))
      << record.Stdout() << record.Stderr();
  const std::vector<TrafficMessage> traffic = MakeTraffic(50);
  std::unique_ptr<cli::LcmBus> bus = OpenBus();
  ASSERT_TRUE(PublishTraffic(bus.get(), traffic, 20));
  // The recorder answers the monitor too, and has taken every message before the trigger.
  Json::Value seen;
  ASSERT_TRUE(WaitFor(
      [&] {
        seen = MonitorEntry(dir, "trig_node");
        return seen["messages"].asUInt64() == traffic.size();
      },
      30000))
      << seen.toStyledString();
  EXPECT_EQ("trigger", seen["mode"].asString());

  std::string out, err;
  ASSERT_EQ(0, RunToEnd({kKeloBag, "trigger", "--label", "brake"}, dir.file("trigger"), &out, &err))
      << out << err;
  const std::string said = "trig_node (bag_record at 127.0.0.1): saved ";
  const size_t at = out.find(said);
  ASSERT_NE(std::string::npos, at) << out;
  const std::string saved = out.substr(at + said.size(), out.find('\n', at) - at - said.size());
  EXPECT_EQ(0u, saved.find(out_dir + "/")) << saved;
  EXPECT_NE(std::string::npos, saved.find("_brake.kelobag")) << saved;
  std::string info, info_err;
  ASSERT_EQ(0, RunToEnd({kKeloBag, "info", saved}, dir.file("info"), &info, &info_err)) << info_err;
  EXPECT_NE(std::string::npos, info.find("\nmode:        trigger\n")) << info;
  EXPECT_NE(std::string::npos, out.find("1 of 1 recorders saved a file")) << out;
  EXPECT_NE(std::string::npos, record.Stdout().find("trigger bag: ")) << record.Stdout();
  EXPECT_EQ(0u, record.Stdout().find("caching every channel")) << "no debug line first: " << record.Stdout();

  std::map<std::string, std::vector<std::string>> got;
  for (const BagMessage& m : ReadAll(saved)) got[m.topic].push_back(m.data);
  const auto want = ByChannel(traffic);
  for (const auto& channel : want) EXPECT_TRUE(channel.second == got[channel.first]) << channel.first;

  record.Signal(SIGINT);
  EXPECT_EQ(0, record.Wait(60000)) << record.Stderr();
  EXPECT_TRUE(EndsWith(record.Stdout(), "none lost\n")) << record.Stdout();
}

TEST(KeloBagLiveTest, TriggerWithoutRecordersSaysSoAndFails) {
  TempDir dir;
  std::string out, err;
  EXPECT_EQ(1, RunToEnd({kKeloBag, "trigger"}, dir.file("trigger"), &out, &err)) << out << err;
  EXPECT_NE(std::string::npos, out.find("no trigger-mode recorder answered")) << out;
}

}  // namespace
}  // namespace kelo
