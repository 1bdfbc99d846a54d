#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/udp/udp_cast_client.h"
#include "record/bag_record.h"
#include "record/bag_record_options.h"
#include "record/record_monitor_client.h"
#include "tests/support/report_log.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing_support::ReportLog;
using testing_support::TempDir;
using tools::interactive::BagRecordMonitor;

double NowSeconds() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return now.tv_sec + now.tv_usec * 1e-6;
}

// Runs `command` and returns what it printed.
std::string RunCommand(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, n);
  pclose(pipe);
  return out;
}

// A recorder in a process of its own, alive until the object is destroyed.
class PeerRecorder {
 public:
  PeerRecorder(const std::string& node, const std::string& dir) {
    pipe_ = popen((std::string(KELO_MONITOR_PEER) + " serve " + node + " " + dir + " > " + dir + "/ready").c_str(),
                  "w");
    while (RunCommand("cat " + dir + "/ready 2>/dev/null").find("ready") == std::string::npos) usleep(10000);
  }
  ~PeerRecorder() { pclose(pipe_); }

 private:
  FILE* pipe_;
};

TEST(BagRecordMonitorTest, FreshRecorderReportsNamesAndZeros) {
  TempDir dir;
  testing::internal::CaptureStdout();
  BagRecord record("car7", dir.file("rec"), 0);
  std::shared_ptr<BagRecordMonitor> monitor = record.GetRecordMonitor();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(monitor->node_name(), "car7");
  EXPECT_EQ(monitor->file_name(), record.options().output);
  EXPECT_THAT(monitor->file_name(), testing::EndsWith(".kelobag.active"));
  EXPECT_EQ(monitor->topic_info_size(), 0);
  EXPECT_EQ(monitor->message_info().freq(), 0.0);
  EXPECT_EQ(monitor->message_info().pre_bytes(), 0.0);
  EXPECT_EQ(monitor->message_info().total_bytes(), 0u);
  EXPECT_TRUE(monitor->has_queue_size() && monitor->has_drop_count() && monitor->has_record_time());
  EXPECT_EQ(monitor->queue_size(), 0);
  EXPECT_EQ(monitor->drop_count(), 0);
  // Before the first Start() the recording time counts from the epoch.
  EXPECT_NEAR(monitor->record_time(), NowSeconds(), 5.0);
}

TEST(BagRecordMonitorTest, TopicsComeInNameOrderWithTheirOwnStatistics) {
  TempDir dir;
  testing::internal::CaptureStdout();
  {
    BagRecord record("node", dir.file("rec"), 0);
    record.Start();
    double before = NowSeconds();
    record.AppendMessage(1, "b", "demo.B", std::string(40, 'b'));
    record.AppendMessage(2, "a", "demo.A", std::string(7, 'a'));
    record.AppendMessage(3, "b", "demo.B", "");
    std::shared_ptr<BagRecordMonitor> monitor = record.GetRecordMonitor();
    double after = NowSeconds();

    ASSERT_EQ(monitor->topic_info_size(), 2);
    const auto& a = monitor->topic_info(0);
    const auto& b = monitor->topic_info(1);
    EXPECT_EQ(a.topic_name(), "a");
    EXPECT_EQ(b.topic_name(), "b");
    for (const auto& topic : monitor->topic_info()) {
      EXPECT_TRUE(topic.has_detail_1() && topic.has_detail_2());
      EXPECT_EQ(topic.detail_1(), "");
      EXPECT_EQ(topic.detail_2(), "");
    }
    EXPECT_EQ(a.message_count(), 1);
    EXPECT_EQ(a.message_info().freq(), 0.0);
    EXPECT_EQ(a.message_info().pre_bytes(), 0.0);
    EXPECT_EQ(a.message_info().total_bytes(), 7u);
    EXPECT_EQ(b.message_count(), 2) << "an empty payload is counted";
    EXPECT_EQ(b.message_info().total_bytes(), 40u);
    EXPECT_EQ(monitor->message_info().total_bytes(), 47u);
    EXPECT_GE(monitor->record_time(), 0.0);
    EXPECT_LE(monitor->record_time(), after - before + 1.0);
    record.Stop();
  }
  testing::internal::GetCapturedStdout();
}

TEST(BagRecordMonitorTest, StalledWriterShowsQueueAndDropsAndStartResetsThem) {
  TempDir dir;
  ReportLog log;
  testing::internal::CaptureStdout();
  BagRecord record("node", dir.file("rec"), 0);
  record.output()->set_output_string_func(log.sink());
  log.HoldOn("save thread running");
  record.Start();
  log.WaitUntilHeld();
  for (int i = 0; i < 1005; ++i) record.AppendMessage(i, "/t", "demo.T", "x");
  std::shared_ptr<BagRecordMonitor> stalled = record.GetRecordMonitor();
  EXPECT_EQ(stalled->queue_size(), 1000);
  EXPECT_EQ(stalled->drop_count(), 5);
  EXPECT_EQ(stalled->topic_info(0).message_count(), 1005);
  log.Release();
  record.Stop();

  usleep(200000);
  record.Start();
  std::shared_ptr<BagRecordMonitor> restarted = record.GetRecordMonitor();
  EXPECT_EQ(restarted->drop_count(), 0);
  EXPECT_LT(restarted->record_time(), stalled->record_time() + 0.1) << "counted from the last Start()";
  usleep(100000);
  EXPECT_GE(record.GetRecordMonitor()->record_time(), 0.1);
  record.Stop();
  testing::internal::GetCapturedStdout();
}

TEST(BagRecordMonitorTest, QueryFromAnotherProcessGetsOneReplyPerRecorder) {
  TempDir dir, peer_dir;
  testing::internal::CaptureStdout();
  BagRecord record("local_node", dir.file("rec"), 0);
  record.Start();
  record.AppendMessage(1, "/t", "demo.T", "12345");
  while (record.GetRecordMonitor()->queue_size() != 0) usleep(1000);

  std::string one = RunCommand(std::string(KELO_MONITOR_PEER) + " query 500");
  EXPECT_EQ(one, "local_node topics=1 queue=0 drop=0 total=5\n");

  {
    PeerRecorder peer("peer_node", peer_dir.path());
    std::string answers = RunCommand(std::string(KELO_MONITOR_PEER) + " query 500");
    std::vector<std::string> lines;
    for (size_t start = 0, end; (end = answers.find('\n', start)) != std::string::npos; start = end + 1) {
      lines.push_back(answers.substr(start, end - start));
    }
    std::sort(lines.begin(), lines.end());
    EXPECT_THAT(lines, ElementsAre("local_node topics=1 queue=0 drop=0 total=5",
                                   "peer_node topics=1 queue=0 drop=0 total=5"));
  }
  record.Stop();
  testing::internal::GetCapturedStdout();
}

TEST(BagRecordMonitorTest, ThousandsOfTopicsAnswerInFull) {
  TempDir dir;
  testing::internal::CaptureStdout();
  BagRecord record("wide", dir.file("rec"), 0);
  record.Start();
  for (int i = 0; i < 2000; ++i) {
    char topic[64];
    std::snprintf(topic, sizeof(topic), "/sensor/with/a/long/topic/name/%04d", i);
    record.AppendMessage(i, topic, "demo.Wide", std::string(i % 50 + 1, 'w'));
  }
  RecordMonitorClient client;
  std::vector<RecordMonitorClient::Reply> replies = client.Query(1000);
  ASSERT_EQ(replies.size(), 1u) << client.error();
  const BagRecordMonitor& monitor = replies[0].monitor;
  EXPECT_GT(monitor.ByteSizeLong(), 65536u) << "the reply must not fit one datagram";
  ASSERT_EQ(monitor.topic_info_size(), 2000);
  for (int i = 0; i < 2000; ++i) {
    char topic[64];
    std::snprintf(topic, sizeof(topic), "/sensor/with/a/long/topic/name/%04d", i);
    EXPECT_EQ(monitor.topic_info(i).topic_name(), topic);
    EXPECT_EQ(monitor.topic_info(i).message_info().total_bytes(), static_cast<uint64_t>(i % 50 + 1));
  }
  EXPECT_EQ(client.malformed(), 0u);
  record.Stop();
  testing::internal::GetCapturedStdout();
}

TEST(BagRecordMonitorTest, GarbageOnTheGroupIsIgnoredAndQueriesStillAnswered) {
  TempDir dir;
  testing::internal::CaptureStdout();
  BagRecord record("node", dir.file("rec"), 0);
  UdpCastClient noise;
  // Messages under other keys, and a query with a body, reach the recorder's group.
  noise.query(BagRecord::kMonitorGroup, BagRecord::kMonitorPort, "not_a_monitor_key", "zz", "x", 10);
  noise.query(BagRecord::kMonitorGroup, BagRecord::kMonitorPort, "record_monitor", std::string(3000, '\xff'),
              "record_monitor_recv", 300);
  RecordMonitorClient client;
  EXPECT_EQ(client.Query(500).size(), 1u);
  testing::internal::GetCapturedStdout();
}

// Under the sanitizers: recorders come and go while queries keep arriving.
TEST(BagRecordMonitorTest, RecordersDestroyedWhileQueriesArrive) {
  TempDir dir;
  std::atomic<bool> done{false};
  std::atomic<int> answered{0};
  std::thread asker([&] {
    RecordMonitorClient client;
    while (!done) answered += static_cast<int>(client.Query(5).size());
  });
  testing::internal::CaptureStdout();
  for (int i = 0; i < 20; ++i) {
    BagRecord record("churn", dir.file("rec"), 0);
    record.Start();
    for (int m = 0; m < 50; ++m) record.AppendMessage(m, "/t" + std::to_string(m % 7), "demo.T", "x");
    usleep(20000);
  }
  done = true;
  asker.join();
  testing::internal::GetCapturedStdout();
  EXPECT_GT(answered.load(), 0);
}

}  // namespace
}  // namespace kelo
