// kelo_bag record: records LCM channels into bag files, continuously through BagRecord or,
// with --trigger, around trigger events through BagRecordTrigger.

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "output/tools_module_output.h"
#include "platform/bag/bag_writer_options.h"
#include "platform/fileio/file_path.h"
#include "platform/udp/udp_cast_manager.h"
#include "record/bag_record.h"
#include "record/bag_record_writer.h"
#include "tools/kelo_bag/bus_recording.h"
#include "tools/kelo_bag/commands.h"
#include "tools/kelo_bag/files.h"
#include "tools/kelo_bag/format_units.h"
#include "tools/kelo_bag/lcm_bus.h"
#include "tools/kelo_bag/record_tool_options.h"
#include "tools/kelo_bag/status_line.h"
#include "tools/kelo_bag/stop_signal.h"

namespace kelo {
namespace cli {

namespace {

// How long a stopping recorder may take to write what it holds: its queue is bounded
// (1000 messages), so only a disk far slower than the bus needs this long.
constexpr int kDrainTimeoutMs = 120000;

std::vector<std::string> TopicList(const RecordToolOpt& opt) {
  return opt.all ? std::vector<std::string>()
                 : std::vector<std::string>(opt.topics.begin(), opt.topics.end());
}

std::string WhatIsRecorded(const RecordToolOpt& opt, const std::string& url) {
  std::string what = opt.all ? "every channel" : std::to_string(opt.topics.size()) + " topic(s)";
  return what + " of " + url;
}

int RecordContinuously(const RecordToolOpt& opt, LcmBus* bus) {
  StatusLine status(stdout, isatty(STDOUT_FILENO) != 0);  // outlives the recorder, which reports to it
  BagRecord record(opt.node_name, opt.output, opt.split_time);
  record.output()->set_output_string_func([&status](const std::string& text) { status.AfterText(text); });
  FeedRecorder(bus, &record, TopicList(opt));
  record.Start();
  std::printf("recording %s as node %s; Ctrl-C stops\n", WhatIsRecorded(opt, bus->url()).c_str(),
              record.options().node_name.c_str());
  std::fflush(stdout);

  const bool bus_ok = PumpBus(
      bus, [] { return StopSignal::Requested(); },
      [&] { status.Show(FormatRecordStatus(StatusOf(*record.GetRecordMonitor()))); });
  status.Clear();
  if (!bus_ok) std::fprintf(stderr, "record: the LCM bus failed; stopping\n");
  std::printf("stopping: writing what was received...\n");
  std::fflush(stdout);

  const bool drained = FinishRecording(&record, kDrainTimeoutMs);
  const RecordStatus last = StatusOf(*record.GetRecordMonitor());
  std::printf("recorded %llu messages (%s), %lld dropped\n", static_cast<unsigned long long>(last.messages),
              FormatBytes(static_cast<double>(last.bytes)).c_str(), static_cast<long long>(last.drops));
  std::fflush(stdout);
  return bus_ok && drained ? 0 : 1;
}

int RecordOnTrigger(const RecordToolOpt& opt, LcmBus* bus) {
  StatusLine status(stdout, isatty(STDOUT_FILENO) != 0);
  BagRecordTrigger writer(opt, fileio::FilePath(opt.output));
  writer.set_on_save([&status](const std::string& saved) {
    const std::string line = "trigger bag: " + saved + "\n";
    std::fputs(line.c_str(), stdout);
    std::fflush(stdout);
    status.AfterText(line);
  });

  // The writer is fed on this thread; the statistics are read here too.
  BagRecord::MessageInfoQueue rates;
  uint64_t messages = 0;
  const long started_ms = WallClockMs();
  bus->Subscribe(TopicList(opt), [&](const LcmBus::Message& m) {
    const long now_ms = WallClockMs();
    BagRecordWriter::Message message = RecordedMessage(m.channel, m.recv_utime, m.data, m.size, now_ms);
    if (message.data.empty()) {
      std::fprintf(stderr, "record: empty message on %s not kept\n", m.channel);
      return;
    }
    writer.save_message(message);
    ++messages;
    rates.append(BagRecord::MessageInfo{now_ms * 0.001, m.size});
  });
  std::printf("caching %s as node %s (window %ld s before a trigger, %ld s long); Ctrl-C stops\n",
              WhatIsRecorded(opt, bus->url()).c_str(), opt.node_name.c_str(), opt.reserve_time,
              opt.duration_time);
  std::fflush(stdout);

  const bool bus_ok = PumpBus(
      bus, [] { return StopSignal::Requested(); },
      [&] {
        RecordStatus s;
        s.seconds = (WallClockMs() - started_ms) * 0.001;
        s.messages = messages;
        s.bytes = rates.total_bytes();
        s.messages_per_second = rates.freq();
        s.bytes_per_second = rates.pre_bytes();
        status.Show(FormatRecordStatus(s, "caching"));
      });
  status.Clear();
  if (!bus_ok) std::fprintf(stderr, "record: the LCM bus failed; stopping\n");
  // Nothing is queued in trigger mode: every message went into the cache as it came.
  writer.close();
  std::printf("stopped after caching %llu messages (%s)\n", static_cast<unsigned long long>(messages),
              FormatBytes(static_cast<double>(rates.total_bytes())).c_str());
  std::fflush(stdout);
  return bus_ok ? 0 : 1;
}

}  // namespace

int RunRecord(int argc, const char* const* argv) {
  RecordToolOpt opt;
  if (opt.parse(argc, argv) != ToolsOptions::ParseResult::kLoaded) return opt.exit_code();
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
  SetDefaultBagWriterOptions(opt.WriterOptions());

  std::string error;
  if (!MakeDirectories(DirectoryOf(opt.output), &error)) {
    std::fprintf(stderr, "record: %s\n", error.c_str());
    return 1;
  }
  const std::string url = BusUrl(opt.url);
  std::unique_ptr<LcmBus> bus = LcmBus::Open(url, &error);
  if (bus == nullptr) {
    std::fprintf(stderr, "record: %s\n", error.c_str());
    return opt.url.empty() ? 1 : 2;  // a URL the user gave is a bad command line
  }
  const std::string notice = ReceiveBufferCapNotice(url, ReadRmemMax());
  if (!notice.empty()) std::fprintf(stderr, "record: %s\n", notice.c_str());

  StopSignal::Install();
  return opt.trigger ? RecordOnTrigger(opt, bus.get()) : RecordContinuously(opt, bus.get());
}

}  // namespace cli
}  // namespace kelo
