#include "platform/trigger/trigger_record_node_api.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/trigger/trigger_key.h"
#include "platform/trigger/trigger_notice.h"
#include "platform/trigger/trigger_protocol.h"
#include "platform/trigger/trigger_sender.h"
#include "platform/udp/udp_cast_client.h"
#include "tests/platform/trigger/trigger_test_util.h"

namespace kelo {
namespace {

using testing_trigger::kWaitMs;
using testing_trigger::NoticeLog;
using testing_trigger::PeerProcess;
using testing_trigger::WallClockMs;

const fileio::DirectoryPath kDir("/rec");

// Sends trigger events without waiting for any answer, in order.
class Firer {
 public:
  void Fire(long time_ms, const std::string& label) {
    UdpMessage event(trigger_protocol::kTriggerEventKey);
    trigger_protocol::Encode(trigger_protocol::TriggerEvent{time_ms, label}, &event);
    FireBody(event.body());
  }
  void FireBody(const std::string& body) {
    client_.query(trigger_protocol::kGroup, trigger_protocol::kPort, trigger_protocol::kTriggerEventKey, body,
                  "unused", 0);
    ASSERT_EQ(client_.error(), "");
  }

 private:
  UdpCastClient client_;
};

TriggerSender::Options PatientSender() {
  TriggerSender::Options options;
  options.ack_window_ms = 1000;  // acknowledgements are immediate; sanitizer builds are slow
  return options;
}

std::map<std::string, TriggerSender::NodeResult> ByNode(
    const std::vector<TriggerSender::NodeResult>& results) {
  std::map<std::string, TriggerSender::NodeResult> by_node;
  for (const TriggerSender::NodeResult& r : results) EXPECT_TRUE(by_node.emplace(r.node, r).second) << r.node;
  return by_node;
}

TEST(TriggerRecordNodeApiTest, ATriggerReachesTheNodesOfEveryProcessAndTheSenderLearnsWhatEachSaved) {
  PeerProcess peer(KELO_TRIGGER_PEER, {"nodes", "0", "p1", "p2"});
  ASSERT_TRUE(peer.WaitForLine("ready"));
  NoticeLog log;
  TriggerRecordNodeApi saver("bag_record", "l1", kDir, 0);
  saver.SetNotifyCallback([&](const std::string& notice) {
    saver.ReportSaved(notice, "rel/l1.kelobag");
    log.Add("l1", notice);
  });
  TriggerRecordNodeApi idle("bag_record", "l2", kDir, 0);  // no callback: nothing saved

  TriggerSender sender(PatientSender());
  const std::vector<TriggerSender::NodeResult> results = sender.Send("everywhere", 0, 20000);
  EXPECT_EQ(sender.error(), "");
  std::map<std::string, TriggerSender::NodeResult> by_node = ByNode(results);
  ASSERT_EQ(by_node.size(), 4u);
  const std::string notice = TriggerNotice{sender.time_ms(), "everywhere"}.ToText();
  std::string peer_file = notice;
  std::replace(peer_file.begin(), peer_file.end(), ' ', '_');
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  const std::map<std::string, std::string> files = {{"p1", "/saved/p1/" + peer_file},
                                                    {"p2", "/saved/p2/" + peer_file},
                                                    {"l1", std::string(cwd) + "/rel/l1.kelobag"},
                                                    {"l2", ""}};
  for (const auto& f : files) {
    const TriggerSender::NodeResult& r = by_node[f.first];
    EXPECT_TRUE(r.answered) << f.first;
    EXPECT_EQ(r.file, f.second) << f.first;
    EXPECT_EQ(r.saved, !f.second.empty()) << f.first;
    EXPECT_EQ(r.due_ms, sender.time_ms()) << f.first;
    EXPECT_EQ(r.peer, "127.0.0.1");
  }
  EXPECT_EQ(by_node["p1"].name, "peer");
  EXPECT_EQ(by_node["p1"].directory, "/saved");
  EXPECT_EQ(by_node["l1"].name, "bag_record");
  EXPECT_EQ(by_node["l1"].directory, "/rec");
  // The nodes of one process answer from that process's one port.
  EXPECT_EQ(by_node["p1"].port, by_node["p2"].port);
  EXPECT_EQ(by_node["l1"].port, by_node["l2"].port);
  EXPECT_NE(by_node["p1"].port, by_node["l1"].port);
  ASSERT_TRUE(peer.WaitForLine("notice p1 " + notice));
  ASSERT_TRUE(peer.WaitForLine("notice p2 " + notice));
  EXPECT_EQ(log.With("everywhere").size(), 1u);
  EXPECT_EQ(peer.Stop(), 0);
}

TEST(TriggerRecordNodeApiTest, ANoticeComesNoEarlierThanItsDurationAfterTheTriggerTime) {
  NoticeLog log;
  TriggerRecordNodeApi at_once("bag_record", "d0", kDir, 0);
  TriggerRecordNodeApi later("bag_record", "d1", kDir, 1);
  at_once.SetNotifyCallback(log.Collect("d0"));
  later.SetNotifyCallback(log.Collect("d1"));
  Firer firer;
  const long now = WallClockMs();
  // A trigger of now, one still to come and one from the past.
  const std::map<std::string, long> offsets = {
      {"timing_now", 0}, {"timing_ahead", 1000}, {"timing_past", -500}};
  for (const auto& o : offsets) firer.Fire(now + o.second, o.first);
  ASSERT_TRUE(log.WaitFor(6, "timing_"));
  for (const NoticeLog::Entry& e : log.With("timing_")) {
    TriggerNotice notice;
    ASSERT_TRUE(TriggerNotice::Parse(e.notice, &notice));
    EXPECT_EQ(notice.time_ms, now + offsets.at(notice.label));
    const long duration_ms = e.node == "d1" ? 1000 : 0;
    EXPECT_GE(e.at_ms, notice.time_ms + duration_ms) << e.node << " " << e.notice;
  }

}

TEST(TriggerRecordNodeApiTest, TriggersInQuickSuccessionGiveOneNoticeEachInTheOrderTheyFallDue) {
  NoticeLog log;
  TriggerRecordNodeApi node("bag_record", "q", kDir, 1);
  node.SetNotifyCallback(log.Collect("q"));
  Firer firer;
  const long now = WallClockMs();
  firer.Fire(now + 300, "order_second");
  firer.Fire(now, "order_first");
  firer.Fire(now + 300, "order_third");  // due with the second; came after it
  ASSERT_TRUE(log.WaitFor(3, "order_"));
  std::vector<std::string> labels;
  for (const NoticeLog::Entry& e : log.With("order_")) {
    TriggerNotice notice;
    ASSERT_TRUE(TriggerNotice::Parse(e.notice, &notice));
    labels.push_back(notice.label);
  }
  EXPECT_EQ(labels, (std::vector<std::string>{"order_first", "order_second", "order_third"}));
}

TEST(TriggerRecordNodeApiTest, GarbageOnTheGroupIsIgnoredAndTheNextTriggerStillArrives) {
  NoticeLog log;
  TriggerRecordNodeApi node("bag_record", "g", kDir, 0);
  node.SetNotifyCallback(log.Collect("g"));
  Firer firer;
  const long now = WallClockMs();
  auto body = [](long time_ms, const std::string& label) {
    UdpMessage event;
    trigger_protocol::Encode(trigger_protocol::TriggerEvent{time_ms, label}, &event);
    return event.body();
  };
  const std::string valid = body(now, "garbage_valid");
  for (const std::string& g : {std::string(), body(-1, "garbage_negative"), body(now, "garbage with blanks"),
                               body(TriggerNotice::kMaxTimeMs + 1, "garbage_far"), valid.substr(0, valid.size() - 1)})
    firer.FireBody(g);
  firer.Fire(now, "garbage_valid");
  ASSERT_TRUE(log.WaitFor(1, "garbage_valid"));
  const std::vector<NoticeLog::Entry> got = log.With("garbage");
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].notice, (TriggerNotice{now, "garbage_valid"}.ToText()));
}

// A node open to any process guards itself, and says why it refuses.
TEST(TriggerRecordNodeApiTest, RefusesTriggersFromTheFutureFloodsUnsignedOnesAndWhatItsOwnerWillNotTake) {
  NoticeLog log;
  TriggerRecordNodeApi node("bag_record", "guarded", kDir, 0);
  node.SetNotifyCallback([&](const std::string& notice) {
    log.Add("guarded", notice);
    node.ReportSaved(notice, "", "nothing for " + notice);
  });
  node.SetTriggerCheck([](long time_ms) { return time_ms % 1000 == 7 ? "ends in 7" : ""; });
  TriggerSender::Options quick = PatientSender();
  quick.ack_window_ms = 500;  // one node, which answers at once
  TriggerSender sender(quick);
  const long now = WallClockMs() / 1000 * 1000;
  auto refusal = [&](const std::string& label, long time_ms) {
    const std::vector<TriggerSender::NodeResult> r = sender.Send(label, time_ms, kWaitMs);
    return r.size() == 1 ? r[0].refused : "<" + std::to_string(r.size()) + " answers>";
  };
  EXPECT_THAT(refusal("future", now + 60500),
              testing::MatchesRegex("dated (59|60) s ahead of this node's clock"));
  EXPECT_EQ("ends in 7", refusal("owner", now - 993));
  // Sent again once done, a trigger gets what came of it and makes no second notice.
  for (int i = 0; i < 2; ++i) {
    const std::vector<TriggerSender::NodeResult> r = sender.Send("twice", now, kWaitMs);
    ASSERT_EQ(1u, r.size());
    EXPECT_EQ("", r[0].refused);
    EXPECT_EQ("nothing for " + (TriggerNotice{now, "twice"}.ToText()), r[0].why);
  }
  EXPECT_EQ(1u, log.With("twice").size());
  // One sender's burst, past the rate it may send at.
  Firer firer;
  for (int i = 0; i < 40; ++i) firer.Fire(now - 100 - i, "burst");
  ASSERT_TRUE(log.WaitFor(10, "burst"));
  usleep(300000);
  EXPECT_LT(log.With("burst").size(), 20u);
  // With a key, only signed triggers.
  node.SetKey(TriggerKey("s3cret"));
  EXPECT_EQ("not signed with this node's trigger key", refusal("unsigned", now - 2000));
  TriggerSender::Options signing = quick;
  signing.key = TriggerKey("s3cret");
  TriggerSender signer(signing);
  const std::vector<TriggerSender::NodeResult> signed_result = signer.Send("signed", now - 3000, kWaitMs);
  ASSERT_EQ(1u, signed_result.size());
  EXPECT_EQ("", signed_result[0].refused);
  EXPECT_TRUE(signed_result[0].answered);
}

TEST(TriggerKeyTest, SignsWithHmacSha256) {
  std::string hex;
  for (unsigned char c : TriggerKey::Sha256("abc")) {
    hex += "0123456789abcdef"[c >> 4];
    hex += "0123456789abcdef"[c & 15];
  }
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", hex);
  // RFC 4231, test case 2, and a key longer than a block.
  const std::string mac = TriggerKey::Hmac("Jefe", "what do ya want for nothing?");
  EXPECT_EQ(std::string("\x5b\xdc\xc1\x46\xbf\x60\x75\x4e", 8), mac.substr(0, 8));
  // Keys of a block and of one byte more: the longer one is hashed first.
  EXPECT_EQ(std::string("\xae\x0c\x0e\x4a\x23\x40\xcf\x50", 8), TriggerKey::Hmac(std::string(64, 'k'), "abc").substr(0, 8));
  EXPECT_EQ(std::string("\xed\x37\x8e\x5d\xfa\x30\xdc\x98", 8), TriggerKey::Hmac(std::string(65, 'k'), "abc").substr(0, 8));
  const TriggerKey key("k");
  EXPECT_TRUE(key.Verify(5, "a", key.Sign(5, "a")));
  EXPECT_FALSE(key.Verify(6, "a", key.Sign(5, "a")));
  EXPECT_FALSE(key.Verify(5, "b", key.Sign(5, "a")));
  EXPECT_FALSE(key.Verify(5, "a", ""));
  EXPECT_FALSE(TriggerKey("other").Verify(5, "a", key.Sign(5, "a")));
  EXPECT_EQ("", TriggerKey().Sign(5, "a"));
}

TEST(TriggerRecordNodeApiTest, OnlyTheLastReportDuringItsOwnNoticeReachesTheSender) {
  TriggerRecordNodeApi twice("bag_record", "twice", kDir, 0);
  TriggerRecordNodeApi wrong("bag_record", "wrong", kDir, 0);
  TriggerRecordNodeApi early("bag_record", "early", kDir, 0);
  twice.SetNotifyCallback([&](const std::string& notice) {
    twice.ReportSaved(notice, "/rec/first.kelobag");
    twice.ReportSaved(notice, "/rec/second.kelobag");
  });
  wrong.SetNotifyCallback(
      [&](const std::string& notice) { wrong.ReportSaved("trigger 1 other", "/rec/wrong.kelobag"); });
  early.SetNotifyCallback([](const std::string&) {});
  TriggerRecordNodeApi thrower("bag_record", "thrower", kDir, 0);  // a callback that throws saves nothing
  thrower.SetNotifyCallback([](const std::string&) { throw std::runtime_error("disk on fire"); });
  TriggerSender sender(PatientSender());
  // A report outside any notice is dropped, not kept for the next one.
  early.ReportSaved(TriggerNotice{1709647629000, "reports"}.ToText(), "/rec/early.kelobag");
  std::map<std::string, TriggerSender::NodeResult> by_node =
      ByNode(sender.Send("reports", 1709647629000, 20000));
  ASSERT_EQ(by_node.size(), 4u);
  EXPECT_EQ(by_node["twice"].file, "/rec/second.kelobag");
  EXPECT_FALSE(by_node["thrower"].saved);
  EXPECT_FALSE(by_node["wrong"].saved);
  EXPECT_FALSE(by_node["early"].saved);
  for (const auto& r : by_node) EXPECT_TRUE(r.second.answered) << r.first;
}

TEST(TriggerRecordNodeApiTest, DestructionWaitsForTheNoticeInProgress) {
  std::mutex mu;
  std::condition_variable changed;
  bool entered = false, release = false;
  std::atomic<bool> finished{false};
  auto node = std::make_unique<TriggerRecordNodeApi>("bag_record", "slow", kDir, 0);
  node->SetNotifyCallback([&](const std::string&) {
    std::unique_lock<std::mutex> hold(mu);
    entered = true;
    changed.notify_all();
    changed.wait(hold, [&] { return release; });
    finished = true;
  });
  Firer firer;
  firer.Fire(WallClockMs(), "destroy_slow");
  {
    std::unique_lock<std::mutex> hold(mu);
    ASSERT_TRUE(changed.wait_for(hold, std::chrono::milliseconds(kWaitMs), [&] { return entered; }));
  }
  std::atomic<bool> destroyed{false};
  std::thread destroyer([&] {
    node.reset();
    destroyed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_FALSE(destroyed) << "the destructor returned while its callback was still running";
  {
    std::lock_guard<std::mutex> hold(mu);
    release = true;
    changed.notify_all();
  }
  destroyer.join();
  EXPECT_TRUE(finished);
}

TEST(TriggerRecordNodeApiTest, DestroyingANodeTellsWaitingSendersThatNothingWasSaved) {
  NoticeLog log;
  TriggerRecordNodeApi prompt("bag_record", "prompt", kDir, 0);
  prompt.SetNotifyCallback(log.Collect("prompt"));
  auto patient = std::make_unique<TriggerRecordNodeApi>("bag_record", "patient", kDir, 3600);
  patient->SetNotifyCallback([](const std::string&) { ADD_FAILURE() << "due in an hour"; });
  std::vector<TriggerSender::NodeResult> results;
  std::thread sending([&] {
    TriggerSender sender(PatientSender());
    results = sender.Send("pending", 0, 30000);
  });
  // Both nodes got the trigger once the prompt one has noticed it.
  ASSERT_TRUE(log.WaitFor(1, "pending"));
  patient.reset();
  sending.join();
  std::map<std::string, TriggerSender::NodeResult> by_node = ByNode(results);
  ASSERT_EQ(by_node.size(), 2u);
  EXPECT_TRUE(by_node["patient"].answered);
  EXPECT_FALSE(by_node["patient"].saved);
}

TEST(TriggerRecordNodeApiTest, NodesComeAndGoSafelyWhileTriggersKeepArriving) {
  std::atomic<bool> stop{false};
  std::thread firing([&] {
    Firer firer;
    while (!stop) {
      firer.Fire(WallClockMs(), "storm");
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  std::atomic<long> notices{0};
  for (int round = 0; round < 20; ++round) {
    std::vector<std::unique_ptr<TriggerRecordNodeApi>> nodes;
    for (int i = 0; i < 3; ++i) {
      nodes.emplace_back(new TriggerRecordNodeApi("bag_record", "storm" + std::to_string(i), kDir, 0));
      TriggerRecordNodeApi* node = nodes.back().get();
      node->SetNotifyCallback([node, &notices](const std::string& notice) {
        ++notices;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        node->ReportSaved(notice, "/rec/storm.kelobag");
      });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    nodes[round % 3]->SetNotifyCallback(nullptr);
    // Destroyed in whatever state they are: idle, in a callback, with notices queued.
  }
  stop = true;
  firing.join();
  EXPECT_GT(notices, 0);
}

TEST(TriggerSenderTest, RefusesWhatNoNodeCouldTakeAndSaysWhy) {
  TriggerSender::Options misdirected;
  misdirected.group = "not-an-address";
  const struct {
    TriggerSender::Options options;
    std::string label;
    long time_ms;
    const char* why;
  } cases[] = {{{}, "has blanks", 0, "not a trigger label"},
               {{}, std::string(65, 'x'), 0, "not a trigger label"},
               {{}, "ok", -5, "out of range"},
               {misdirected, "ok", 0, "not an IPv4 address"}};
  for (const auto& c : cases) {
    TriggerSender sender(c.options);
    EXPECT_TRUE(sender.Send(c.label, c.time_ms, 1000).empty());
    EXPECT_THAT(sender.error(), testing::HasSubstr(c.why));
  }
}

TEST(TriggerSenderTest, WithNoNodeListeningReportsNoOneAndNoError) {
  TriggerSender::Options options;
  options.ack_window_ms = 300;
  TriggerSender sender(options);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(sender.Send("nobody", 0, 5000).empty());
  EXPECT_EQ(sender.error(), "");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

}  // namespace
}  // namespace kelo
