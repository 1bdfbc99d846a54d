#include "platform/trigger/trigger_record_node_api.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "platform/trigger/trigger_key.h"
#include "platform/trigger/trigger_notice.h"
#include "platform/trigger/trigger_protocol.h"
#include "platform/trigger/trigger_sender.h"
#include "platform/udp/udp_cast_server.h"
#include "record/wall_clock.h"
#include "tests/support/report_log.h"
#include "tests/support/subprocess.h"

namespace kelo {
namespace {

const fileio::DirectoryPath kDir("/rec");
constexpr int kWaitMs = 20000;  // generous for sanitizer builds; success ends the wait early

// The notices nodes were given, as "node notice|when it came".
void Note(testing_support::ReportLog* log, const std::string& node, const std::string& notice) {
  log->sink()(node + " " + notice + "|" + std::to_string(WallClockMs()));
}

// The notices containing `part`, once there are `count` of them (or after kWaitMs).
std::vector<std::string> With(testing_support::ReportLog* log, const std::string& part, size_t count = 0) {
  std::vector<std::string> found;
  testing_support::WaitFor([&] {
    found.clear();
    for (const std::string& text : log->texts())
      if (text.find(part) != std::string::npos) found.push_back(text);
    return found.size() >= count;
  }, count > 0 ? kWaitMs : 0);
  return found;
}

// A sender for nodes of this process, which acknowledge at once; with 0, one that sends without waiting.
TriggerSender::Options Quick(int ack_window_ms = 500) {
  TriggerSender::Options options;
  options.ack_window_ms = ack_window_ms;
  return options;
}

std::map<std::string, TriggerSender::NodeResult> ByNode(const std::vector<TriggerSender::NodeResult>& results) {
  std::map<std::string, TriggerSender::NodeResult> by_node;
  for (const TriggerSender::NodeResult& r : results) EXPECT_TRUE(by_node.emplace(r.node, r).second) << r.node;
  return by_node;
}

// Catches a node's answer lost or merged with another's, a file reported twice not replaced by the last, a
// relative path left relative, a report for another notice or outside one taken, and a sender that stops
// listening at the first answer it cannot read: a stranger's garbage must not cut off a node's report, which
// comes when its file is saved. (Across processes: the command's live test.)
TEST(TriggerRecordNodeApiTest, EveryNodeAnswersAndTheSenderLearnsTheLastFileEachSaved) {
  UdpCastServer stranger(trigger_protocol::kGroup, trigger_protocol::kPort);
  stranger.register_callback(trigger_protocol::kTriggerEventKey, [&](const std::string& peer, int port, UdpMessage& m) {
    stranger.send_data(peer, port, m.create_recv(trigger_protocol::kTriggerAckKey));  // no body: no acknowledgement
  });
  const long time_ms = WallClockMs();
  const std::string notice = TriggerNotice{time_ms, "everywhere"}.ToText();
  TriggerRecordNodeApi twice("bag_record", "l1", kDir, 0), wrong("bag_record", "l2", kDir, 0),
      early("bag_record", "l3", kDir, 0);
  twice.SetNotifyCallback([&](const std::string& n) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // saving
    twice.ReportSaved(n, "/rec/first.kelobag");
    twice.ReportSaved(n, "rel/l1.kelobag");
  });
  wrong.SetNotifyCallback([&](const std::string&) { wrong.ReportSaved("trigger 1 other", "/rec/wrong.kelobag"); });
  early.ReportSaved(notice, "/rec/early.kelobag");  // outside any notice: dropped
  std::set<std::string> got;
  std::set<int> ports;  // one server a process: the nodes of one process answer from its one port
  for (const TriggerSender::NodeResult& r : TriggerSender(Quick(1000)).Send("everywhere", time_ms, kWaitMs)) {
    ports.insert(r.port);
    got.insert(r.node + " " + r.name + " " + r.directory + " " + r.peer + " " + std::to_string(r.answered) +
               std::to_string(r.saved) + " " + std::to_string(r.due_ms - time_ms) + " " + r.file);
  }
  EXPECT_EQ(ports.size(), 1u);
  const std::string cwd = std::filesystem::current_path();
  EXPECT_EQ(got, (std::set<std::string>{"l1 bag_record /rec 127.0.0.1 11 0 " + cwd + "/rel/l1.kelobag",
                                        "l2 bag_record /rec 127.0.0.1 10 0 ", "l3 bag_record /rec 127.0.0.1 10 0 "}));
}

// Notices come no earlier than due, in due order (ties in arrival order); the sender is told when.
TEST(TriggerRecordNodeApiTest, NoticesComeWhenDueInTheOrderTheyFallDue) {
  testing_support::ReportLog log;
  TriggerRecordNodeApi at_once("bag_record", "d0", kDir, 0), later("bag_record", "d1", kDir, 1);
  at_once.SetNotifyCallback([&](const std::string& notice) { Note(&log, "d0", notice); });
  later.SetNotifyCallback([&](const std::string& notice) { Note(&log, "d1", notice); });
  TriggerSender firer(Quick(0));
  const long now = WallClockMs();
  const std::map<std::string, long> offsets = {{"due_b", 300}, {"due_a", 0}, {"due_c", 300}, {"due_past", -500}};
  for (const char* label : {"due_b", "due_a", "due_c", "due_past"}) firer.Send(label, now + offsets.at(label), 0);
  TriggerSender sender(Quick());
  std::map<std::string, TriggerSender::NodeResult> by_node = ByNode(sender.Send("sent", 0, kWaitMs));
  EXPECT_EQ(by_node["d0"].due_ms, sender.time_ms());
  EXPECT_EQ(by_node["d1"].due_ms, sender.time_ms() + 1000);
  EXPECT_TRUE(by_node["d1"].answered);
  std::vector<std::string> order;
  ASSERT_EQ(With(&log, "due_", 8).size(), 8u);
  for (const std::string& e : With(&log, "due_")) {
    TriggerNotice notice;
    const size_t bar = e.rfind('|');
    ASSERT_TRUE(TriggerNotice::Parse(e.substr(3, bar - 3), &notice));
    EXPECT_EQ(notice.time_ms, now + offsets.at(notice.label));
    EXPECT_GE(std::stol(e.substr(bar + 1)), notice.time_ms + (e[1] == '1' ? 1000 : 0)) << e;
    if (e[1] == '1') order.push_back(notice.label);
  }
  EXPECT_THAT(order, testing::ElementsAre("due_past", "due_a", "due_b", "due_c"));
}

// Refused: the future, floods, what the owner's check rejects, unsigned ones with a key; repeats answered;
// a throwing callback saves nothing (not the last notice's file) and later notices still come.
TEST(TriggerRecordNodeApiTest, RefusesTriggersFromTheFutureFloodsUnsignedOnesAndWhatItsOwnerWillNotTake) {
  testing_support::ReportLog log;
  TriggerRecordNodeApi node("bag_record", "guarded", kDir, 0);
  node.SetNotifyCallback([&](const std::string& notice) {
    Note(&log, "guarded", notice);
    if (notice.find("throws") != std::string::npos) throw std::runtime_error("disk on fire");
    if (notice.find("saves") != std::string::npos) return node.ReportSaved(notice, "/rec/ok.kelobag");
    node.ReportSaved(notice, "", "nothing for " + notice);
  });
  node.SetTriggerCheck([](long time_ms) { return time_ms % 1000 == 7 ? "ends in 7" : ""; });
  TriggerSender sender(Quick());
  const long now = WallClockMs() / 1000 * 1000;
  auto refusal = [&](TriggerSender* s, const std::string& label, long time_ms) {
    const std::vector<TriggerSender::NodeResult> r = s->Send(label, time_ms, kWaitMs);
    return r.size() == 1 ? r[0].refused + "|" + r[0].why : "<" + std::to_string(r.size()) + " answers>";
  };
  EXPECT_THAT(refusal(&sender, "future", now + 60500),
              testing::MatchesRegex("dated (59|60) s ahead of this node's clock\\|"));
  EXPECT_EQ("ends in 7|", refusal(&sender, "owner", now - 993));
  // The same trigger from another sender while it is pending, and again once it is done: one
  // notice, and every sender told what came of it.
  const long soon = (WallClockMs() + 400) / 10 * 10;
  const std::string twice = "|nothing for " + TriggerNotice{soon, "twice"}.ToText();
  TriggerSender retrier(Quick());
  std::thread retry([&] { EXPECT_EQ(twice, refusal(&retrier, "twice", soon)); });
  EXPECT_EQ(twice, refusal(&sender, "twice", soon));
  retry.join();
  EXPECT_EQ(twice, refusal(&sender, "twice", soon));
  EXPECT_EQ(1u, With(&log, "twice").size());
  for (const char* label : {"saves", "throws"}) {
    const std::vector<TriggerSender::NodeResult> r = sender.Send(label, now - 4000, kWaitMs);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(std::to_string(r[0].answered) + std::to_string(r[0].saved) + r[0].file,
              label[0] == 's' ? "11/rec/ok.kelobag" : "10") << label;
  }
  // One sender's burst, past the rate it may send at; then another sender's trigger, which
  // comes after whatever of the burst was taken.
  TriggerSender flood(Quick(0)), other(Quick(0));
  for (int i = 0; i < 40; ++i) flood.Send("flood", now - 100 - i, 0);
  other.Send("after", now - 50, 0);
  ASSERT_EQ(With(&log, "after", 1).size(), 1u);
  EXPECT_THAT(With(&log, "flood").size(), testing::AllOf(testing::Ge(10u), testing::Lt(20u)));
  node.SetKey(TriggerKey("s3cret"));
  EXPECT_EQ("not signed with this node's trigger key|", refusal(&sender, "unsigned", now - 2000));
  TriggerSender::Options signing = Quick();
  signing.key = TriggerKey("s3cret");
  TriggerSender signer(signing);
  EXPECT_EQ("|nothing for " + (TriggerNotice{now - 3000, "signed"}.ToText()), refusal(&signer, "signed", now - 3000));
}

TEST(TriggerKeyTest, SignsWithHmacSha256) {
  auto hex = [](const std::string& bytes, size_t n) {
    std::string out;
    for (unsigned char c : bytes.substr(0, n)) out += std::string(1, "0123456789abcdef"[c >> 4]) + "0123456789abcdef"[c & 15];
    return out;
  };
  EXPECT_EQ("5bdcc146bf60754e", hex(TriggerKey::Hmac("Jefe", "what do ya want for nothing?"), 8));
  // A key of one block is used as it is, a longer one is hashed first.
  EXPECT_EQ("93244b031118b806", hex(TriggerKey::Hmac(std::string(64, 'k'), "data"), 8));
  EXPECT_EQ("a79b53d0bf1cb4bb", hex(TriggerKey::Hmac(std::string(65, 'k'), "data"), 8));
  const TriggerKey key("k");
  const std::string mac = key.Sign(5, "a");
  EXPECT_TRUE(key.Verify(5, "a", mac));
  EXPECT_FALSE(key.Verify(6, "a", mac) || key.Verify(5, "b", mac) || TriggerKey("other").Verify(5, "a", mac));
  EXPECT_EQ("", TriggerKey().Sign(5, "a"));
}

TEST(TriggerRecordNodeApiTest, DestructionWaitsForTheNoticeInProgressAndAnswersTheRest) {
  std::atomic<bool> entered{false}, release{false}, finished{false}, destroyed{false};
  auto slow = std::make_unique<TriggerRecordNodeApi>("bag_record", "slow", kDir, 0);
  slow->SetNotifyCallback([&](const std::string&) {
    entered = true;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    finished = true;
  });
  auto patient = std::make_unique<TriggerRecordNodeApi>("bag_record", "patient", kDir, 3600);
  patient->SetNotifyCallback([](const std::string&) { ADD_FAILURE() << "due in an hour"; });
  std::vector<TriggerSender::NodeResult> results;
  std::thread sending([&] { results = TriggerSender(Quick()).Send("pending", 0, 30000); });
  while (!entered) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  patient.reset();  // both nodes got the trigger once the slow one is in its notice
  std::thread destroyer([&] {
    slow.reset();
    destroyed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(destroyed) << "the destructor returned while its callback was still running";
  release = true;
  destroyer.join();
  EXPECT_TRUE(finished);
  sending.join();
  std::map<std::string, TriggerSender::NodeResult> by_node = ByNode(results);
  ASSERT_EQ(by_node.size(), 2u);
  EXPECT_TRUE(by_node["patient"].answered);
  EXPECT_FALSE(by_node["patient"].saved);
}

// Nodes destroyed in any state while triggers keep arriving: the sanitizers see races and leaks.
TEST(TriggerRecordNodeApiTest, NodesComeAndGoSafelyWhileTriggersKeepArriving) {
  std::atomic<bool> stop{false};
  std::thread firing([&] {
    TriggerSender firer(Quick(0));
    while (!stop) firer.Send("storm", WallClockMs(), 0);
  });
  std::atomic<long> notices{0};
  for (int round = 0; round < 10; ++round) {
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
  }
  stop = true;
  firing.join();
  EXPECT_GT(notices, 0);
}

}  // namespace
}  // namespace kelo
