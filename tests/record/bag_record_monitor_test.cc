#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "platform/udp/udp_cast_manager.h"
#include "record/bag_record.h"
#include "record/bag_record_options.h"
#include "record/record_monitor_client.h"
#include "record/record_monitor_service.h"
#include "record/wall_clock.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing_support::TempDir;
using tools::interactive::BagRecordMonitor;

// "<node> topics=<n> total=<bytes>" for each recorder that answers, sorted.
std::vector<std::string> Answers() {
  std::vector<std::string> lines;
  for (const auto& reply : RecordMonitorClient().Query(500)) {
    lines.push_back(reply.monitor.node_name() + " topics=" + std::to_string(reply.monitor.topic_info_size()) +
                    " total=" + std::to_string(reply.monitor.message_info().total_bytes()));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

// Catches topics out of name order, statistics or losses given to the wrong topic, and the name file shown.
TEST(BagRecordMonitorTest, TopicsComeInNameOrderWithTheirOwnStatisticsAndLosses) {
  TempDir dir;
  BagRecord record("node", dir.file("rec"), 1);
  std::shared_ptr<BagRecordMonitor> fresh = record.GetRecordMonitor();
  EXPECT_EQ(fresh->node_name() + " " + fresh->file_name() + " " + fresh->mode(),
            "node " + record.options().output + " continuous");
  EXPECT_EQ(fresh->current_file(), "") << "no file before the first message";
  EXPECT_NEAR(fresh->record_time(), WallClockMs() / 1000.0, 5.0) << "before the first Start(), counted from the epoch";
  record.Start();
  record.AppendMessage(1000, "b", "demo.B", std::string(40, 'b'));
  record.AppendMessage(1500, "a", "demo.A", std::string(7, 'a'));
  record.AppendMessage(1600, "b", "demo.B", "");
  record.AppendMessage(1700, "b", "demo.B", std::string(10, 'b'));
  record.AppendMessage(2600, "b", "demo.B", "splits");
  ASSERT_TRUE(record.Drain(60000));
  std::shared_ptr<BagRecordMonitor> monitor = record.GetRecordMonitor();
  std::string topics;  // name, messages (an empty payload counted), bytes, losses (the empty payload)
  for (const auto& t : monitor->topic_info()) {
    topics += t.topic_name() + " " + std::to_string(t.message_count()) + " " +
              std::to_string(t.message_info().total_bytes()) + " " + std::to_string(t.lost_count()) + "; ";
  }
  EXPECT_EQ(topics, "a 1 7 0; b 4 56 1; ");
  EXPECT_EQ(monitor->message_info().total_bytes(), 63u);
  EXPECT_EQ(monitor->lost_count(), 1u);
  ASSERT_EQ(monitor->losses_size(), 1);
  EXPECT_EQ(monitor->losses(0).topic_name() + " " + monitor->losses(0).reason(), "b empty");
  EXPECT_THAT(monitor->current_file(), EndsWith("_1.kelobag.active")) << "the part being written";
  EXPECT_EQ(monitor->problems(), "");
  record.Stop();
}

// Catches a recorder or a tool's own (trigger mode) registration missing, answering twice, or after it ended.
TEST(BagRecordMonitorTest, EveryRecorderInEveryProcessAnswersOnce) {
  TempDir dir, other;
  BagRecord first("first", dir.file("rec"), 0);
  BagRecord second("second", other.file("rec"), 0);
  first.Start();
  first.AppendMessage(1, "/t", "demo.T", "12345");
  while (first.GetRecordMonitor()->queue_size() != 0) usleep(1000);
  auto tools_own = std::make_shared<BagRecordMonitor>();
  tools_own->set_node_name("trigger_node");
  RecordMonitorService::Registration trigger = RecordMonitorService::Register(
      UdpCastManager::GetCastServer(BagRecord::kMonitorGroup, BagRecord::kMonitorPort),
      [&] { return tools_own; });

  EXPECT_THAT(Answers(), ElementsAre("first topics=1 total=5", "second topics=0 total=0", "trigger_node topics=0 total=0"));
  trigger = RecordMonitorService::Registration();
  EXPECT_THAT(Answers(), ElementsAre("first topics=1 total=5", "second topics=0 total=0"));
  first.Stop();
}

}  // namespace
}  // namespace kelo
