// kelo_bag record: records LCM channels into bag files, continuously through BagRecord or,
// with --trigger, around trigger events through BagRecordTrigger.

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "output/tools_module_output.h"
#include "platform/bag/bag_cache_writer.h"
#include "platform/bag/bag_writer_options.h"
#include "platform/fileio/file_path.h"
#include "platform/udp/udp_cast_manager.h"
#include "record/bag_record.h"
#include "record/bag_record_writer.h"
#include "record/record_monitor_service.h"
#include "record/wall_clock.h"
#include "tools/kelo_bag/bus_recording.h"
#include "tools/kelo_bag/command_options.h"
#include "tools/kelo_bag/commands.h"
#include "tools/kelo_bag/files.h"
#include "tools/kelo_bag/format_units.h"
#include "tools/kelo_bag/lcm_bus.h"
#include "tools/kelo_bag/lcm_message_type.h"
#include "tools/kelo_bag/record_tool_options.h"
#include "tools/kelo_bag/status_line.h"
#include "tools/kelo_bag/stop_signal.h"

namespace kelo {
namespace cli {

namespace {

// How long a stopping recorder may take to write what it holds: its queue is bounded
// (1000 messages), so only a disk far slower than the bus needs this long.
constexpr int kDrainTimeoutMs = 120000;

// The command line as a shell would take it back: "kelo_bag record -a -o 'my rec/'".
std::string CommandLine(int argc, const char* const* argv) {
  std::string line = "kelo_bag";
  for (int i = 0; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool plain = !arg.empty() && arg.find_first_not_of(
                                           "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                           "_-./:=,+@%") == std::string::npos;
    std::string quoted = "'";
    for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    line += " " + (plain ? arg : quoted + "'");
  }
  return line;
}

std::string HostName() {
  char name[256] = {};
  return gethostname(name, sizeof(name) - 1) == 0 ? name : "";
}

std::string WhatIsRecorded(const RecordToolOpt& opt, const std::string& url) {
  std::string what = opt.all ? "every channel" : std::to_string(opt.topics.size()) + " topic(s)";
  for (const std::string& pattern : opt.regex) what += ", those matching " + pattern;
  for (const std::string& pattern : opt.exclude) what += " but those matching " + pattern;
  return what + " of " + url;
}

// --max-files: keeps the last `keep` completed parts of this recording and deletes older
// ones as new parts complete, with a line for each. A part is announced as it is handed
// over to be completed: one not yet under its name is deleted at the next part, or by
// Finish() once the recorder has completed everything.
class KeepLastParts {
 public:
  KeepLastParts(int keep, StatusLine* status) : keep_(keep), status_(status) {}

  // Takes the recorder's texts; "split bag: FILE" says a part was completed.
  void OnText(const std::string& text) {
    static const std::string kCompleted = "split bag: ";
    if (keep_ <= 0 || text.compare(0, kCompleted.size(), kCompleted) != 0) return;
    std::string file = text.substr(kCompleted.size());
    while (!file.empty() && file.back() == '\n') file.pop_back();
    std::lock_guard<std::mutex> hold(mutex_);
    completed_.push_back(file);
    PruneLocked(false);
  }

  void Finish() {
    std::lock_guard<std::mutex> hold(mutex_);
    PruneLocked(true);
  }

 private:
  void PruneLocked(bool final) {
    while (completed_.size() > static_cast<size_t>(keep_)) {
      const std::string oldest = completed_.front();
      std::string line = "deleted " + oldest + " (--max-files " + std::to_string(keep_) + ")\n";
      if (unlink(oldest.c_str()) != 0) {
        if (errno == ENOENT && !final) return;
        line = "could not delete " + oldest + ": " + std::strerror(errno) + "\n";
      }
      completed_.pop_front();
      std::fputs(line.c_str(), stdout);
      std::fflush(stdout);
      status_->AfterText(line);
    }
  }

  const int keep_;
  StatusLine* const status_;
  std::mutex mutex_;
  std::deque<std::string> completed_;
};

int RecordContinuously(const RecordToolOpt& opt, LcmBus* bus) {
  StatusLine status(stdout, isatty(STDOUT_FILENO) != 0);  // outlives the recorder, which reports to it
  KeepLastParts parts(opt.max_files, &status);
  auto record = std::make_unique<BagRecord>(opt.node_name, opt.output, opt.split_time, opt.split_size);
  record->output()->set_output_string_func([&status, &parts](const std::string& text) {
    status.AfterText(text);
    parts.OnText(text);
  });
  FeedRecorder(bus, record.get(), opt.Selection());
  record->Start();
  std::printf("recording %s as node %s; Ctrl-C stops\n", WhatIsRecorded(opt, bus->url()).c_str(),
              record->options().node_name.c_str());
  std::fflush(stdout);

  const bool bus_ok = PumpBus(
      bus, [] { return StopSignal::Requested(); },
      [&] { status.Show(FormatRecordStatus(StatusOf(*record->GetRecordMonitor()))); });
  status.Clear();
  if (!bus_ok) std::fprintf(stderr, "record: the LCM bus failed; stopping\n");
  std::printf("stopping: writing what was received...\n");
  std::fflush(stdout);

  const bool drained = FinishRecording(record.get(), kDrainTimeoutMs);
  const RecordStatus last = StatusOf(*record->GetRecordMonitor());
  const BagLosses losses = record->GetLosses();
  const std::vector<std::string> incomplete = record->GetIncompleteFiles();
  record.reset();  // its goodbye comes before the summary, which is the last line
  parts.Finish();
  const bool whole = ReportRecording("received", last.messages, last.bytes, losses, incomplete, bus->KernelDrops());
  return bus_ok && drained && whole ? 0 : 1;
}

// The statistics of a recording in trigger mode, where no BagRecord keeps them: per topic
// and for all together, read by the status line and by monitor queries.
class CacheStatistics {
 public:
  void Add(const std::string& topic, long now_ms, uint64_t bytes) {
    const BagRecord::MessageInfo info{now_ms * 0.001, bytes};
    std::lock_guard<std::mutex> hold(mutex_);
    BagRecord::TopicInfo& topic_info = topics_[topic];
    ++topic_info.count;
    topic_info.info_queue.append(info);
    total_.append(info);
  }

  std::shared_ptr<tools::interactive::BagRecordMonitor> Snapshot(const RecordToolOpt& opt,
                                                                 BagRecordTrigger* writer, long started_ms) {
    const long now_ms = WallClockMs();
    auto monitor = std::make_shared<tools::interactive::BagRecordMonitor>();
    monitor->set_node_name(opt.node_name);
    monitor->set_file_name(opt.output);
    monitor->set_record_time((now_ms - started_ms) * 0.001);
    monitor->set_queue_size(0);  // every message goes into the cache as it comes
    monitor->set_drop_count(0);
    {
      std::lock_guard<std::mutex> hold(mutex_);
      FillMonitorRates(total_, now_ms * 0.001, monitor->mutable_message_info());
      for (const auto& [name, info] : topics_) {
        tools::interactive::BagRecordTopicInfo* topic = monitor->add_topic_info();
        topic->set_topic_name(name);
        topic->set_detail_1(info.detail_1);
        topic->set_detail_2(info.detail_2);
        topic->set_message_count(info.count);
        FillMonitorRates(info.info_queue, now_ms * 0.001, topic->mutable_message_info());
      }
    }
    FillMonitorLosses(writer->losses()->Total(), monitor.get());
    monitor->set_current_file("");
    monitor->set_problems(writer->problems());
    monitor->set_mode("trigger");
    return monitor;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, BagRecord::TopicInfo> topics_;
  BagRecord::MessageInfoQueue total_;
};

// How many seconds of the traffic `status` describes a cache of `cache_bytes` holds.
double CachedSeconds(const RecordStatus& status, long cache_bytes) {
  const double per_second =
      status.bytes_per_second + status.messages_per_second * BagCacheWriter::kMessageOverheadBytes;
  return per_second > 0 ? static_cast<double>(cache_bytes) / per_second : 1e18;
}

int RecordOnTrigger(const RecordToolOpt& opt, LcmBus* bus) {
  StatusLine status(stdout, isatty(STDOUT_FILENO) != 0);
  // The writer's constructor prints its space setting, a line for debugging the library:
  // shown only when KELO_BAG_DEBUG is set. No other thread writes to std::cout meanwhile.
  std::optional<BagRecordTrigger> constructed;
  {
    std::ostringstream hidden;
    const char* debug = std::getenv("KELO_BAG_DEBUG");
    std::streambuf* console = debug != nullptr && *debug != '\0' ? nullptr : std::cout.rdbuf(hidden.rdbuf());
    constructed.emplace(opt, fileio::FilePath(opt.output));
    if (console != nullptr) std::cout.rdbuf(console);
  }
  BagRecordTrigger& writer = *constructed;
  auto print = [&status](const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
    status.AfterText(line + "\n");
  };
  writer.set_on_save([&print](const std::string& saved) { print("trigger bag: " + saved); });
  writer.set_on_report(print);
  writer.set_trigger_key(opt.trigger_key);

  // The writer is fed on this thread; the statistics are read here and by monitor queries.
  CacheStatistics statistics;
  const long started_ms = WallClockMs();
  LcmTypeNamer namer;
  SubscribeSelected(bus, opt.Selection(), [&](const LcmBus::Message& m) {
    const long now_ms = WallClockMs();
    writer.save_message(RecordedMessage(m.channel, m.recv_utime, namer.TypeOf(m.channel, m.data, m.size),
                                        m.data, m.size, now_ms));
    statistics.Add(m.channel, now_ms, m.size);
  });
  RecordMonitorService::Registration monitor = RecordMonitorService::Register(
      UdpCastManager::GetCastServer(BagRecord::kMonitorGroup, BagRecord::kMonitorPort),
      [&] { return statistics.Snapshot(opt, &writer, started_ms); });
  std::printf("caching %s as node %s (window %ld s before a trigger, %ld s long); Ctrl-C stops\n",
              WhatIsRecorded(opt, bus->url()).c_str(), opt.node_name.c_str(), opt.reserve_time,
              opt.duration_time);
  std::fflush(stdout);

  // A notice comes when the window has passed, so the cache must reach back over the
  // longer of the two.
  const double window_s = static_cast<double>(std::max(opt.reserve_time, opt.duration_time));
  bool warned = false;
  const bool bus_ok = PumpBus(
      bus, [] { return StopSignal::Requested(); },
      [&] {
        const RecordStatus now = StatusOf(*statistics.Snapshot(opt, &writer, started_ms));
        const double held = CachedSeconds(now, opt.cache_size);
        if (held < window_s && !warned) {
          status.Clear();
          std::fprintf(stderr,
                       "record: at %s the cache of %s holds %.0f s, less than the %.0f s a trigger's window "
                       "needs: windows will lose their beginning (raise --cache)\n",
                       FormatByteRate(now.bytes_per_second).c_str(),
                       FormatBytes(static_cast<double>(opt.cache_size)).c_str(), held, window_s);
        }
        warned = held < window_s;
        status.Show(FormatRecordStatus(now, "caching"));
      });
  status.Clear();
  if (!bus_ok) std::fprintf(stderr, "record: the LCM bus failed; stopping\n");
  monitor = RecordMonitorService::Registration();
  // Nothing is queued in trigger mode: every message went into the cache as it came.
  writer.close();
  const RecordStatus last = StatusOf(*statistics.Snapshot(opt, &writer, started_ms));
  const bool whole = ReportRecording("cached", last.messages, last.bytes, writer.losses()->Total(),
                                     writer.incomplete_files(), bus->KernelDrops());
  return bus_ok && whole ? 0 : 1;
}

}  // namespace

int RunRecord(int argc, const char* const* argv) {
  RecordToolOpt opt;
  int exit_code;
  if (!ParseCommandLine(&opt, argc, argv, &exit_code)) return exit_code;
  const std::string wrong = opt.Check();
  if (!wrong.empty()) {
    std::fprintf(stderr, "record: %s (usage: record [OPTIONS] [topic_name(s)...]; see --help)\n",
                 wrong.c_str());
    return 2;
  }
  if (!opt.interface.empty() && !UdpCastManager::SetInterface(opt.interface)) {
    std::fprintf(stderr, "record: no network interface \"%s\" with an IPv4 address (see --help)\n",
                 opt.interface.c_str());
    return 2;
  }
  std::string error;
  const std::string folder = DirectoryOf(opt.output);
  if (!MakeDirectories(folder, &error) || !CheckWritableDirectory(folder, &error)) {
    std::fprintf(stderr, "record: %s; nothing recorded\n", error.c_str());
    return 1;
  }
  const std::string url = BusUrl(opt.url);
  std::unique_ptr<LcmBus> bus = LcmBus::Open(url, &error);
  if (bus == nullptr) {
    std::fprintf(stderr, "record: %s\n", error.c_str());
    return opt.url.empty() ? 1 : 2;  // a URL the user gave is a bad command line
  }
  BagWriterOptions options = opt.WriterOptions();
  options.recording_info = {{"command", CommandLine(argc, argv)},
                            {"host", HostName()},
                            {"bus", url},
                            {"tool", std::string("kelo_bag ") + KELO_BAG_VERSION},
                            {"mode", opt.trigger ? "trigger" : "plain"}};
  SetDefaultBagWriterOptions(options);
  const std::string notice = ReceiveBufferCapNotice(url, ReadRmemMax());
  if (!notice.empty()) std::fprintf(stderr, "record: %s\n", notice.c_str());

  // Large messages come and go hundreds of times a second. By default the allocator maps
  // each block of a megabyte afresh and unmaps it when freed, or hands the top of a heap
  // back as soon as a few megabytes lie free there, so that every message also costs a page
  // fault and a zero-filled page for each 4 KB, on the thread that must empty the socket
  // before the kernel drops datagrams. Memory freed stays mapped instead; the writer still
  // hands free pages back after each completed file.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 64 << 20);
  // Each part is written by a thread of its own, and each new thread could take another of
  // the allocator's arenas (up to eight a processor), each keeping pages of its own: a
  // recording's memory crept up by a few percent every ten minutes. Two arenas hold it flat.
  mallopt(M_ARENA_MAX, 2);
  StopSignal::Install();
  return opt.trigger ? RecordOnTrigger(opt, bus.get()) : RecordContinuously(opt, bus.get());
}

}  // namespace cli
}  // namespace kelo
