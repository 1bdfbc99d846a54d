// kelo_bag demo: the tool's main job with nothing else running. In-process publishers feed
// a recorder over an in-process LCM bus (memq://) for about ten seconds, split into parts;
// the live status line and a monitor query over loopback show the recording; then the
// parts are described, and the first is played back with its timeline.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "output/tools_module_output.h"
#include "play/bag_play.h"
#include "record/bag_record.h"
#include "record/record_monitor_client.h"
#include "tools/kelo_bag/bag_info.h"
#include "tools/kelo_bag/bus_recording.h"
#include "tools/kelo_bag/command_options.h"
#include "tools/kelo_bag/commands.h"
#include "tools/kelo_bag/demo_publishers.h"
#include "tools/kelo_bag/files.h"
#include "tools/kelo_bag/format_units.h"
#include "tools/kelo_bag/lcm_bus.h"
#include "tools/kelo_bag/monitor_view.h"
#include "tools/kelo_bag/status_line.h"
#include "tools/kelo_bag/stop_signal.h"

namespace kelo {
namespace cli {

namespace {

constexpr int kRecordSeconds = 10;
constexpr int kSplitSeconds = 3;
constexpr int kMonitorAtSecond = 5;
constexpr int kPlaySeconds = 3;
constexpr int kDrainTimeoutMs = 120000;

void Heading(const std::string& text) {
  std::printf("\n== %s\n", text.c_str());
  std::fflush(stdout);
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Records for kRecordSeconds into `directory` and says how many messages were published and
// how many of them the recorder dropped; returns whether the bus and the recorder worked.
bool Record(const std::string& directory, uint64_t* published, uint64_t* dropped) {
  std::string error;
  std::unique_ptr<LcmBus> bus = LcmBus::Open("memq://", &error);
  if (bus == nullptr) {
    std::fprintf(stderr, "demo: %s\n", error.c_str());
    return false;
  }
  Heading("recording for " + std::to_string(kRecordSeconds) + " s, a new part every " +
          std::to_string(kSplitSeconds) + " s");
  std::printf("publishers (in-process LCM, memq://):");
  for (const DemoPublishers::Stream& s : DemoPublishers::Streams()) {
    std::printf(" %s %.0f Hz x %s;", s.topic.c_str(), s.hz,
                FormatBytes(static_cast<double>(s.bytes)).c_str());
  }
  std::printf("\n");
  std::fflush(stdout);

  // A node name of its own, so that the monitor query picks this recorder out of any other
  // that runs on the host.
  const std::string node = "kelo_bag_demo_" + std::to_string(getpid());
  StatusLine status(stdout, isatty(STDOUT_FILENO) != 0);  // outlives the recorder, which reports to it
  BagRecord record(node, directory + "/", kSplitSeconds);
  record.output()->set_output_string_func([&status](const std::string& text) { status.AfterText(text); });
  FeedRecorder(bus.get(), &record, TopicSelection());
  record.Start();
  DemoPublishers publishers;
  publishers.Start();

  const auto started = std::chrono::steady_clock::now();
  int second = 0;
  bool bus_ok = PumpBus(
      bus.get(),
      [&] {
        return StopSignal::Requested() ||
               std::chrono::steady_clock::now() - started >= std::chrono::seconds(kRecordSeconds);
      },
      [&] {
        ++second;
        status.Show(FormatRecordStatus(StatusOf(*record.GetRecordMonitor())));
        if (second != kMonitorAtSecond) return;
        // What `kelo_bag monitor --once` shows, asked over loopback like any other process.
        status.Clear();
        RecordMonitorClient client;
        std::vector<RecordMonitorClient::Reply> replies = client.Query(300);
        replies.erase(std::remove_if(
                          replies.begin(), replies.end(),
                          [&](const RecordMonitorClient::Reply& r) { return r.monitor.node_name() != node; }),
                      replies.end());
        std::printf("-- kelo_bag monitor, at %d s:\n%s--\n", second,
                    client.error().empty() ? FormatMonitorTable(replies).c_str()
                                           : ("monitor query failed: " + client.error() + "\n").c_str());
        std::fflush(stdout);
      },
      [&] { publishers.PublishPending(bus.get(), 10); });
  // The sensors stop first; what they made is then published and dispatched, so that all of
  // it reaches the recorder before the recorder is drained and stopped.
  publishers.Stop();
  while (bus_ok && publishers.PublishPending(bus.get(), 0) > 0) {
    int handled;
    while ((handled = bus->Handle(0)) > 0) {
    }
    bus_ok = handled == 0;
  }
  status.Clear();
  const bool drained = FinishRecording(&record, kDrainTimeoutMs);
  const RecordStatus last = StatusOf(*record.GetRecordMonitor());
  const BagLosses losses = record.GetLosses();
  *published = publishers.published();
  *dropped = losses.total();
  std::printf("published %llu messages\n", static_cast<unsigned long long>(*published));
  const bool whole = ReportRecording("the recorder received", last.messages, last.bytes, losses,
                                     record.GetIncompleteFiles());
  return bus_ok && drained && whole;
}

// Describes the parts, then all of them together; returns the parts' paths.
std::vector<std::string> Describe(const std::string& directory, uint64_t* recorded) {
  Heading("kelo_bag info " + directory + "/*.kelobag");
  const std::vector<std::string> bags = ListBags(directory);
  std::vector<BagSummary> summaries;
  for (const std::string& bag : bags) {
    BagSummary summary;
    std::string error;
    if (!SummarizeBag(bag, true, &summary, &error)) {
      std::fprintf(stderr, "demo: %s\n", error.c_str());
      continue;
    }
    std::printf("%s: %llu messages, %.2f s, %s, %s, %u chunks%s\n", BaseName(bag).c_str(),
                static_cast<unsigned long long>(summary.messages), summary.duration_s(),
                FormatBytes(static_cast<double>(summary.size_bytes)).c_str(), summary.compression.c_str(),
                summary.chunks, summary.recovered ? ", recovered" : "");
    summaries.push_back(std::move(summary));
  }
  const BagSummary merged = MergeSummaries(summaries);
  *recorded = merged.messages;
  std::printf("\n%s", FormatSummary(merged).c_str());
  std::fflush(stdout);
  return bags;
}

bool PlayFirstPart(const std::string& bag) {
  Heading("kelo_bag play " + bag + " --duration " + std::to_string(kPlaySeconds));
  BagPlay play(bag);
  uint64_t delivered = 0;
  play.SetMessageCallback(
      [&delivered](long, const std::string&, const std::string&, const std::string&) { ++delivered; });
  const auto started = std::chrono::steady_clock::now();
  if (!play.ControlPlay(0, kPlaySeconds)) return false;
  for (;;) {
    const int code = play.NotifyTimeline();
    if (code == BagPlay::kStopped || code == BagPlay::kNoMessage || StopSignal::Requested()) break;
  }
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf("\nplayed %llu messages in %.2f s of wall-clock time\n",
              static_cast<unsigned long long>(delivered), took);
  std::fflush(stdout);
  return delivered > 0;
}

}  // namespace

int RunDemo(int argc, const char* const* argv) {
  DemoOpt opt;
  int exit_code;
  if (!ParseCommandLine(&opt, argc, argv, &exit_code)) return exit_code;
  std::string directory = opt.directory;
  std::string error;
  if (directory.empty()) {
    directory = MakeTempDirectory("kelo_bag_demo_");
    if (directory.empty()) {
      std::fprintf(stderr, "demo: cannot create a temporary directory\n");
      return 1;
    }
  } else if (!MakeDirectories(directory, &error)) {
    std::fprintf(stderr, "demo: %s\n", error.c_str());
    return 1;
  }
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  std::printf("kelo_bag demo: recording into %s\n", directory.c_str());
  StopSignal::Install();

  uint64_t published = 0, dropped = 0, recorded = 0;
  const bool recorded_ok = Record(directory, &published, &dropped);
  const std::vector<std::string> bags = Describe(directory, &recorded);
  if (bags.empty()) {
    std::fprintf(stderr, "demo: no bag was written in %s\n", directory.c_str());
    return 1;
  }
  const bool played = StopSignal::Requested() || PlayFirstPart(bags.front());

  std::printf(
      "\n%s: %llu of %llu published messages are in %zu bags in %s\n",
      recorded + dropped == published && recorded_ok && played ? "demo done" : "demo done with problems",
      static_cast<unsigned long long>(recorded), static_cast<unsigned long long>(published), bags.size(),
      directory.c_str());
  std::printf("try: kelo_bag info %s/*.kelobag\n     kelo_bag play %s\n", directory.c_str(),
              bags.front().c_str());
  std::fflush(stdout);
  return recorded_ok && played ? 0 : 1;
}

}  // namespace cli
}  // namespace kelo
