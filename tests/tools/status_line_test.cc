#include "tools/kelo_bag/status_line.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "record/bag_record.h"
#include "tools/kelo_bag/bus_recording.h"
#include "tools/kelo_bag/monitor_view.h"

namespace kelo {
namespace cli {
namespace {

using testing::HasSubstr;

tools::interactive::BagRecordMonitor Snapshot() {
  tools::interactive::BagRecordMonitor m;
  m.set_node_name("car7");
  m.set_file_name("rec/bag_20240305140709.kelobag.active");
  m.set_current_file("rec/bag_20240305140709_2.kelobag.active");
  m.set_mode("continuous");
  m.set_problems("disk full: cannot write rec/bag_20240305140709_2.kelobag.active: No space left on device");
  m.set_record_time(75.5);
  m.set_queue_size(3);
  m.set_drop_count(2);
  m.mutable_message_info()->set_freq(230.0);
  m.mutable_message_info()->set_pre_bytes(3.0 * 1048576);
  m.mutable_message_info()->set_total_bytes(250 * 1048576ULL);
  for (const auto& [name, count, freq] :
       {std::tuple{"/camera", 300, 30.0}, std::tuple{"/imu", 2000, 200.0}}) {
    auto* topic = m.add_topic_info();
    topic->set_topic_name(name);
    topic->set_message_count(count);
    auto* info = topic->mutable_message_info();
    info->set_freq(freq);
    info->set_pre_bytes(freq * 100);
    info->set_total_bytes(static_cast<uint64_t>(count) * 100);
    // /camera went silent: its rate now is 0, whatever its history says.
    info->set_current_freq(count == 300 ? 0.0 : freq);
    info->set_current_bytes(count == 300 ? 0.0 : freq * 100);
  }
  BagLosses losses;
  losses.Add("/imu", BagLossReason::kQueueFull, 2);
  losses.Add("/imu", BagLossReason::kDiskFull, 5);
  FillMonitorLosses(losses, &m);
  return m;
}

TEST(StatusLineTest, TellsTimeMessagesSizeDropsAndRates) {
  EXPECT_EQ("recording 01:15  2300 msgs  250 MB  7 lost  (230.0 msg/s, 3.00 MB/s, queue 3)  ! disk full",
            FormatRecordStatus(StatusOf(Snapshot())));
  // From a recorder that counts no losses, the drops are what it lost.
  tools::interactive::BagRecordMonitor old;
  old.set_drop_count(4);
  old.set_record_time(3725);
  EXPECT_EQ("caching 1:02:05  0 msgs  0 B  4 lost  (0.0 msg/s, 0 B/s, queue 0)",
            FormatRecordStatus(StatusOf(old), "caching"));
}

TEST(StatusLineTest, RedrawsInPlaceAndErasesWhatAShorterTextLeftOfIt) {
  char* written = nullptr;
  size_t size = 0;
  FILE* file = open_memstream(&written, &size);
  StatusLine status(file, true);
  status.Show("recording 00:01  12 msgs");
  status.Show("recording 00:02  24 msgs");
  // Longer than the status line: it covers it, nothing to erase.
  status.AfterText("split bag: rec/bag_20240305140709_0.kelobag\n");
  status.Show("recording 00:03  36 msgs");
  // Shorter, printed with a line end the sink does not see: column 12 on, one line up.
  status.AfterText("record exit");
  status.Show("recording 00:04  48 msgs");
  // Two lines: the status line was under the first, two lines up.
  status.AfterText("duration:\n  12.50\n");
  status.Clear();
  status.Clear();  // nothing left to clear
  std::fclose(file);
  EXPECT_EQ(
      "\r\033[Krecording 00:01  12 msgs\r"
      "\r\033[Krecording 00:02  24 msgs\r"
      "\r\033[Krecording 00:03  36 msgs\r"
      "\0337\033[1A\033[12G\033[K\0338"
      "\r\033[Krecording 00:04  48 msgs\r"
      "\0337\033[2A\033[10G\033[K\0338",
      std::string(written, size));
  std::free(written);
}

TEST(MonitorViewTest, ShowsEachRecorderWithARowPerTopic) {
  const RecordMonitorClient::Reply reply{"127.0.0.1", 40001, Snapshot()};
  const std::string table = FormatMonitorTable({reply});
  for (const char* text :
       {"car7 at 127.0.0.1:40001 (continuous)\n", "file rec/bag_20240305140709_2.kelobag.active\n",
        "recording 01:15  queue 3  lost 7", "total 2300 msgs 250 MB", "  lost: 5 disk full, 2 queue full\n",
        "  ! disk full: cannot write", "  /camera       0.0        0 B/s        300    29.3 KB        0\n",
        "  /imu        200.0    19.5 KB/s       2000     195 KB        7\n"}) {
    EXPECT_THAT(table, HasSubstr(text));
  }
  EXPECT_EQ("no recorder answered\n", FormatMonitorTable({}));

  // The live tests read the node, messages, mode, queue, file and problems of the JSON.
  const Json::Value json = MonitorJson({reply, reply});
  ASSERT_EQ(2u, json["recorders"].size());
  const Json::Value& r = json["recorders"][1];
  for (const auto& [key, value] :
       {std::pair{"port", 40001.0}, {"drops", 2.0}, {"lost", 7.0}, {"record_time_s", 75.5}})
    EXPECT_EQ(value, r[key].asDouble()) << key;
  ASSERT_EQ(2u, r["losses"].size());
  EXPECT_EQ("disk_full", r["losses"][1]["reason"].asString());
  EXPECT_EQ(5u, r["losses"][1]["count"].asUInt64());
  EXPECT_TRUE(MonitorJson({})["recorders"].isArray());
}

// Catches a summary that leaves out a file it could not complete, a topic's losses or the
// bus's drops, or that calls such a recording whole.
TEST(RecordingReportTest, NamesWhatWasLostAndSaysWhetherAllWasKept) {
  BagLosses many;  // more topics than the summary names one by one
  for (int i = 10; i < 32; ++i) many.Add("/t" + std::to_string(i), BagLossReason::kDiskFull, 1);
  const std::string kept = "received 3 messages (1.00 KB)", whole = kept + ", none lost\n", file = "r/a.bag",
                    many_lost = "lost on /t29: 1 disk full\nlost on 2 more topics\n" + kept,
                    dropped = kept + "; the bus dropped 5 datagrams before they reached the recorder (its "
                                     "receive buffer was full)\n";
  struct Case {
    BagLosses losses;
    std::vector<std::string> incomplete;
    int drops;
    std::string end;
  };
  for (const Case& c : std::vector<Case>{
           {{}, {}, 0, whole},
           {{}, {file}, 0, "could not complete " + file + "; it stays readable as unfinished\n" + whole},
           {{}, {}, 5, dropped},
           {many, {}, 0, many_lost + "; 22 of them lost: 22 disk full\n"}}) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(c.end == whole, ReportRecording("received", 3, 1024, c.losses, c.incomplete, c.drops)) << c.end;
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::EndsWith(c.end));
  }
}

}  // namespace
}  // namespace cli
}  // namespace kelo
