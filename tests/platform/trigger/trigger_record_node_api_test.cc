#include "platform/trigger/trigger_record_node_api.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
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
#include "tests/support/peer_process.h"

namespace kelo {
namespace {

using testing_support::PeerProcess;

const fileio::DirectoryPath kDir("/rec");
constexpr int kWaitMs = 20000;  // generous for sanitizer builds; success ends the wait early

long WallClockMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// The notices nodes were given, with when they came.
class NoticeLog {
 public:
  struct Entry {
    std::string node, notice;
    long at_ms;
  };
  std::function<void(const std::string&)> Collect(const std::string& node) {
    return [this, node](const std::string& notice) { Add(node, notice); };
  }
  void Add(const std::string& node, const std::string& notice) {
    const long at = WallClockMs();
    std::lock_guard<std::mutex> hold(mu_);
    entries_.push_back(Entry{node, notice, at});
    changed_.notify_all();
  }
  // Whether `count` notices containing `part` came in time.
  bool WaitFor(size_t count, const std::string& part) {
    std::unique_lock<std::mutex> hold(mu_);
    return changed_.wait_for(hold, std::chrono::milliseconds(kWaitMs), [&] { return WithLocked(part).size() >= count; });
  }
  std::vector<Entry> With(const std::string& part) {
    std::lock_guard<std::mutex> hold(mu_);
    return WithLocked(part);
  }

 private:
  std::vector<Entry> WithLocked(const std::string& part) const {
    std::vector<Entry> found;
    for (const Entry& e : entries_) {
      if (e.notice.find(part) != std::string::npos) found.push_back(e);
    }
    return found;
  }
  std::mutex mu_;
  std::condition_variable changed_;
  std::vector<Entry> entries_;
};

// Sends trigger events without waiting for any answer.
class Firer {
 public:
  void Fire(long time_ms, const std::string& label) { FireBody(Body(time_ms, label)); }
  void FireBody(const std::string& body) {
    client_.query(trigger_protocol::kGroup, trigger_protocol::kPort, trigger_protocol::kTriggerEventKey, body, "", 0);
    ASSERT_EQ(client_.error(), "");
  }
  static std::string Body(long time_ms, const std::string& label) {
    UdpMessage event(trigger_protocol::kTriggerEventKey);
    trigger_protocol::Encode(trigger_protocol::TriggerEvent{time_ms, label, ""}, &event);
    return event.body();
  }

 private:
  UdpCastClient client_;
};

// A sender for nodes of this process, which acknowledge at once.
TriggerSender::Options Quick(int ack_window_ms = 200) {
  TriggerSender::Options options;
  options.ack_window_ms = ack_window_ms;
  return options;
}

std::map<std::string, TriggerSender::NodeResult> ByNode(const std::vector<TriggerSender::NodeResult>& results) {
  std::map<std::string, TriggerSender::NodeResult> by_node;
  for (const TriggerSender::NodeResult& r : results) EXPECT_TRUE(by_node.emplace(r.node, r).second) << r.node;
  return by_node;
}

// One trigger reaches the nodes of every process; the sender learns what each saved: only the
// last report made during the node's own notice counts (relative paths made absolute).
TEST(TriggerRecordNodeApiTest, ATriggerReachesTheNodesOfEveryProcessAndTheSenderLearnsWhatEachSaved) {
  PeerProcess peer(KELO_TRIGGER_PEER, {"nodes", "0", "p1", "p2"});
  ASSERT_TRUE(peer.WaitForLine("ready"));
  const long time_ms = WallClockMs();
  const std::string notice = TriggerNotice{time_ms, "everywhere"}.ToText();
  TriggerRecordNodeApi twice("bag_record", "l1", kDir, 0), wrong("bag_record", "l2", kDir, 0),
      early("bag_record", "l3", kDir, 0);
  twice.SetNotifyCallback([&](const std::string& n) {
    twice.ReportSaved(n, "/rec/first.kelobag");
    twice.ReportSaved(n, "rel/l1.kelobag");
  });
  wrong.SetNotifyCallback([&](const std::string&) { wrong.ReportSaved("trigger 1 other", "/rec/wrong.kelobag"); });
  early.ReportSaved(notice, "/rec/early.kelobag");  // outside any notice: dropped

  TriggerSender sender(Quick(500));
  std::map<std::string, TriggerSender::NodeResult> by_node = ByNode(sender.Send("everywhere", time_ms, kWaitMs));
  EXPECT_EQ(sender.error(), "");
  ASSERT_EQ(by_node.size(), 5u);
  std::string peer_file = notice;
  std::replace(peer_file.begin(), peer_file.end(), ' ', '_');
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
  const std::map<std::string, std::string> files = {{"p1", "/saved/p1/" + peer_file},
                                                    {"p2", "/saved/p2/" + peer_file},
                                                    {"l1", std::string(cwd) + "/rel/l1.kelobag"},
                                                    {"l2", ""},
                                                    {"l3", ""}};
  for (const auto& f : files) {
    const TriggerSender::NodeResult& r = by_node[f.first];
    EXPECT_TRUE(r.answered) << f.first;
    EXPECT_EQ(r.file, f.second) << f.first;
    EXPECT_EQ(r.saved, !f.second.empty()) << f.first;
    EXPECT_EQ(r.due_ms, time_ms) << f.first;
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
  EXPECT_EQ(peer.Stop(), 0);
}

// A notice comes no earlier than its duration after the trigger time; notices come in the
// order they fall due (equal ones in the order they came), and the sender is told when.
TEST(TriggerRecordNodeApiTest, NoticesComeWhenDueInTheOrderTheyFallDue) {
  NoticeLog log;
  TriggerRecordNodeApi at_once("bag_record", "d0", kDir, 0), later("bag_record", "d1", kDir, 1);
  at_once.SetNotifyCallback(log.Collect("d0"));
  later.SetNotifyCallback(log.Collect("d1"));
  Firer firer;
  const long now = WallClockMs();
  const std::vector<std::pair<std::string, long>> fired = {
      {"due_b", 300}, {"due_a", 0}, {"due_c", 300}, {"due_past", -500}};
  for (const auto& f : fired) firer.Fire(now + f.second, f.first);
  TriggerSender sender(Quick());
  std::map<std::string, TriggerSender::NodeResult> by_node = ByNode(sender.Send("sent", 0, kWaitMs));
  ASSERT_EQ(by_node.size(), 2u);
  EXPECT_EQ(by_node["d0"].due_ms, sender.time_ms());
  EXPECT_EQ(by_node["d1"].due_ms, sender.time_ms() + 1000);
  EXPECT_TRUE(by_node["d1"].answered);

  ASSERT_TRUE(log.WaitFor(8, "due_"));
  std::vector<std::string> order;
  for (const NoticeLog::Entry& e : log.With("due_")) {
    TriggerNotice notice;
    ASSERT_TRUE(TriggerNotice::Parse(e.notice, &notice));
    long offset = 0;
    for (const auto& f : fired) offset = f.first == notice.label ? f.second : offset;
    EXPECT_EQ(notice.time_ms, now + offset);
    EXPECT_GE(e.at_ms, notice.time_ms + (e.node == "d1" ? 1000 : 0)) << e.node << " " << e.notice;
    if (e.node == "d1") order.push_back(notice.label);
  }
  EXPECT_THAT(order, testing::ElementsAre("due_past", "due_a", "due_b", "due_c"));
}

// Bodies no sender could have made are ignored, and the next trigger still arrives.
TEST(TriggerRecordNodeApiTest, GarbageOnTheGroupIsIgnoredAndTheNextTriggerStillArrives) {
  NoticeLog log;
  TriggerRecordNodeApi node("bag_record", "g", kDir, 0);
  node.SetNotifyCallback(log.Collect("g"));
  Firer firer;
  const long now = WallClockMs();
  const std::string valid = Firer::Body(now, "garbage_valid");
  std::vector<std::string> garbage = {Firer::Body(-1, "garbage_negative"),
                                      Firer::Body(TriggerNotice::kMaxTimeMs + 1, "garbage_far"),
                                      Firer::Body(now, "garbage with blanks"), Firer::Body(now, std::string(65, 'g'))};
  for (size_t cut = 0; cut < valid.size(); ++cut) garbage.push_back(valid.substr(0, cut));
  garbage.push_back(valid);
  garbage.back()[8] = '\x7f';  // the label's length claims far more bytes than there are
  for (const std::string& g : garbage) firer.FireBody(g);
  UdpCastClient raw;
  raw.query(trigger_protocol::kGroup, trigger_protocol::kPort, "unrelated_key", "noise", "", 0);
  firer.Fire(now, "garbage_valid");
  ASSERT_TRUE(log.WaitFor(1, "garbage_valid"));
  const std::vector<NoticeLog::Entry> got = log.With("garbage");
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].notice, (TriggerNotice{now, "garbage_valid"}.ToText()));
}

// A node open to any process refuses triggers from the future, floods, what its owner will
// not take and, with a key, unsigned ones; a trigger sent again gets what came of it.
TEST(TriggerRecordNodeApiTest, RefusesTriggersFromTheFutureFloodsUnsignedOnesAndWhatItsOwnerWillNotTake) {
  NoticeLog log;
  TriggerRecordNodeApi node("bag_record", "guarded", kDir, 0);
  node.SetNotifyCallback([&](const std::string& notice) {
    log.Add("guarded", notice);
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
  const std::string twice = "|nothing for " + TriggerNotice{now, "twice"}.ToText();
  EXPECT_EQ(twice, refusal(&sender, "twice", now));
  EXPECT_EQ(twice, refusal(&sender, "twice", now));
  EXPECT_EQ(1u, log.With("twice").size());
  // One sender's burst, past the rate it may send at; then another sender's trigger, which
  // comes after whatever of the burst was taken.
  Firer flood, other;
  for (int i = 0; i < 40; ++i) flood.Fire(now - 100 - i, "flood");
  other.Fire(now - 50, "after");
  ASSERT_TRUE(log.WaitFor(1, "after"));
  EXPECT_GE(log.With("flood").size(), 10u);
  EXPECT_LT(log.With("flood").size(), 20u);
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
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", hex(TriggerKey::Sha256("abc"), 32));
  EXPECT_EQ("5bdcc146bf60754e", hex(TriggerKey::Hmac("Jefe", "what do ya want for nothing?"), 8));
  // A key of one block is used as it is, a longer one is hashed first.
  EXPECT_EQ("93244b031118b806", hex(TriggerKey::Hmac(std::string(64, 'k'), "data"), 8));
  EXPECT_EQ("a79b53d0bf1cb4bb", hex(TriggerKey::Hmac(std::string(65, 'k'), "data"), 8));
  const TriggerKey key("k");
  EXPECT_TRUE(key.Verify(5, "a", key.Sign(5, "a")));
  EXPECT_FALSE(key.Verify(6, "a", key.Sign(5, "a")));
  EXPECT_FALSE(key.Verify(5, "b", key.Sign(5, "a")));
  EXPECT_FALSE(key.Verify(5, "a", ""));
  EXPECT_FALSE(TriggerKey("other").Verify(5, "a", key.Sign(5, "a")));
  EXPECT_EQ("", TriggerKey().Sign(5, "a"));
}

// What a notice saved is not carried into the next one, a callback that throws saves
// nothing, and later notices still come.
TEST(TriggerRecordNodeApiTest, EachNoticeReportsOnlyItsOwnFileEvenWhenTheCallbackThrows) {
  NoticeLog log;
  TriggerRecordNodeApi node("bag_record", "thrower", kDir, 0);
  node.SetNotifyCallback([&](const std::string& notice) {
    log.Add("thrower", notice);
    if (notice.find("throw") != std::string::npos) throw std::runtime_error("disk on fire");
    node.ReportSaved(notice, "/rec/ok.kelobag");
  });
  TriggerSender sender(Quick());
  std::vector<TriggerSender::NodeResult> first = sender.Send("saves", 0, kWaitMs);
  ASSERT_EQ(first.size(), 1u);
  EXPECT_EQ(first[0].file, "/rec/ok.kelobag");
  std::vector<TriggerSender::NodeResult> second = sender.Send("throws", 0, kWaitMs);
  ASSERT_EQ(second.size(), 1u);
  EXPECT_TRUE(second[0].answered);
  EXPECT_FALSE(second[0].saved);
  Firer firer;
  firer.Fire(WallClockMs(), "later");
  EXPECT_TRUE(log.WaitFor(1, "later"));
}

// Destruction waits for the notice in progress, and tells senders still waiting for a
// notice that nothing was saved.
TEST(TriggerRecordNodeApiTest, DestructionWaitsForTheNoticeInProgressAndAnswersTheRest) {
  std::mutex mu;
  std::condition_variable changed;
  bool entered = false, release = false;
  std::atomic<bool> finished{false};
  auto slow = std::make_unique<TriggerRecordNodeApi>("bag_record", "slow", kDir, 0);
  slow->SetNotifyCallback([&](const std::string&) {
    std::unique_lock<std::mutex> hold(mu);
    entered = true;
    changed.notify_all();
    changed.wait(hold, [&] { return release; });
    finished = true;
  });
  auto patient = std::make_unique<TriggerRecordNodeApi>("bag_record", "patient", kDir, 3600);
  patient->SetNotifyCallback([](const std::string&) { ADD_FAILURE() << "due in an hour"; });
  std::vector<TriggerSender::NodeResult> results;
  std::thread sending([&] {
    TriggerSender sender(Quick());
    results = sender.Send("pending", 0, 30000);
  });
  {
    std::unique_lock<std::mutex> hold(mu);
    ASSERT_TRUE(changed.wait_for(hold, std::chrono::milliseconds(kWaitMs), [&] { return entered; }));
  }
  patient.reset();  // both nodes got the trigger once the slow one is in its notice
  std::atomic<bool> destroyed{false};
  std::thread destroyer([&] {
    slow.reset();
    destroyed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(destroyed) << "the destructor returned while its callback was still running";
  {
    std::lock_guard<std::mutex> hold(mu);
    release = true;
    changed.notify_all();
  }
  destroyer.join();
  EXPECT_TRUE(finished);
  sending.join();
  std::map<std::string, TriggerSender::NodeResult> by_node = ByNode(results);
  ASSERT_EQ(by_node.size(), 2u);
  EXPECT_TRUE(by_node["patient"].answered);
  EXPECT_FALSE(by_node["patient"].saved);
}

// Nodes made and destroyed in any state (idle, in a callback, with notices queued) while
// triggers keep arriving: the sanitizers see the races and leaks.
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

TEST(TriggerSenderTest, RefusesWhatNoNodeCouldTakeAndSaysWhy) {
  TriggerSender::Options misdirected;
  misdirected.group = "not-an-address";
  const struct {
    TriggerSender::Options options;
    std::string label;
    long time_ms;
    std::string error;
  } cases[] = {{{}, "has blanks", 0, "not a trigger label"},
               {{}, std::string(65, 'x'), 0, "not a trigger label"},
               {{}, "ok", -5, "out of range"},
               {misdirected, "ok", 0, "not an IPv4 address"}};
  for (const auto& c : cases) {
    TriggerSender sender(c.options);
    EXPECT_TRUE(sender.Send(c.label, c.time_ms, 1000).empty());
    EXPECT_THAT(sender.error(), testing::HasSubstr(c.error));
  }
}

TEST(TriggerSenderTest, WithNoNodeListeningReportsNoOneAndNoError) {
  TriggerSender sender(Quick(300));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(sender.Send("nobody", 0, 5000).empty());
  EXPECT_EQ(sender.error(), "");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
}

}  // namespace
}  // namespace kelo
