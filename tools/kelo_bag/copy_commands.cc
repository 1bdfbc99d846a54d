// kelo_bag cat, filter, merge and recover: the messages of bags, merged in time order within
// a range and a topic selection, printed a line each or written into a new bag.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <json/value.h>
#include <json/writer.h>

#include "platform/bag/bag_message.h"
#include "platform/bag/bag_reader.h"
#include "platform/bag/bag_topic.h"
#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "play/bag_view.h"
#include "tools/kelo_bag/bag_sources.h"
#include "tools/kelo_bag/command_options.h"
#include "tools/kelo_bag/commands.h"
#include "tools/kelo_bag/format_units.h"

namespace kelo {
namespace cli {

namespace {

constexpr size_t kPreviewBytes = 32;

// The first bytes of a payload: as a quoted string when they are printable text, else hex.
std::string Preview(const std::string& data) {
  const std::string head = data.substr(0, kPreviewBytes);
  bool text = !head.empty();
  for (unsigned char c : head) text = text && c >= 0x20 && c < 0x7f;
  std::string out;
  if (text) {
    out = "\"";
    for (char c : head) out += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    out += "\"";
  } else {
    static const char kHex[] = "0123456789abcdef";
    for (unsigned char c : head) out += std::string{kHex[c >> 4], kHex[c & 15]};
  }
  return data.size() > kPreviewBytes ? out + "..." : out;
}

// Reads the messages of `sources` in time order within the range of `opt`, handing each to
// `take`, then names every file in which reading found damage. Returns the messages read;
// `partial` is set when something could not be read.
uint64_t ReadMessages(const CopyOpt& opt, const BagSources& sources, const std::set<std::string>& chosen,
                      const std::function<void(const BagMessage&, const std::string& type)>& take, bool* partial) {
  std::vector<std::unique_ptr<BagReader>> readers;
  BagView view;
  for (const std::string& file : sources.files()) {
    readers.emplace_back(new BagReader(file));
    view.append_bag(readers.back().get());
  }
  if (chosen.size() < sources.topics().size()) view.set_filter_topics(chosen);
  view.set_time(opt.start, opt.duration);
  // A bar on a terminal (stderr, and never over cat's own lines), as far through the range
  // as the last message read.
  const bool bar = isatty(STDERR_FILENO) != 0 && (opt.kind != CopyOpt::Kind::kCat || isatty(STDOUT_FILENO) == 0);
  const long range_start = sources.begin_ms() + opt.start * 1000L;
  const double range_ms = std::max(1.0, static_cast<double>(view.duration()));
  std::chrono::steady_clock::time_point drawn;  // long ago: the first message draws the bar
  bool shown = false;
  uint64_t messages = 0;
  while (std::shared_ptr<BagMessage> message = view.pop_message()) {
    take(*message, message->type.empty() ? view.get_message_type(message->topic) : message->type);
    ++messages;
    if (bar && std::chrono::steady_clock::now() - drawn >= std::chrono::milliseconds(200)) {
      drawn = std::chrono::steady_clock::now();
      shown = true;
      const int percent = static_cast<int>(std::min(100.0, 100.0 * (message->time - range_start) / range_ms));
      std::fprintf(stderr, "\r[%-40s] %3d%%  %llu messages", std::string(percent * 40 / 100, '#').c_str(), percent,
                   static_cast<unsigned long long>(messages));
    }
  }
  if (shown) std::fputs("\r\033[K", stderr);
  for (const std::unique_ptr<BagReader>& reader : readers) {
    const BagFileInfo info = reader->file_info();
    if (!info.damaged && info.unread_bytes == 0) continue;
    std::fprintf(stderr, "%s: %s\n", opt.name().c_str(), reader->get_error().c_str());
    *partial = true;
  }
  return messages;
}

int Cat(const CopyOpt& opt, const BagSources& sources, const std::set<std::string>& chosen, bool* partial) {
  Json::StreamWriterBuilder compact;
  compact["indentation"] = "";
  ReadMessages(
      opt, sources, chosen,
      [&](const BagMessage& m, const std::string& type) {
        std::string line;
        if (opt.json) {
          Json::Value v(Json::objectValue);
          v["time_ms"] = static_cast<Json::Int64>(m.time);
          v["topic"] = m.topic;
          v["type"] = type;
          v["size"] = static_cast<Json::UInt64>(m.data.size());
          v["preview"] = Preview(m.data);
          line = Json::writeString(compact, v);
        } else {
          line = std::to_string(m.time) + "  " + FormatLocalTime(m.time) + "  " + m.topic + "  " +
                 std::to_string(m.data.size()) + " B  " + Preview(m.data);
        }
        std::fputs((line + "\n").c_str(), stdout);
      },
      partial);
  return kExitOk;
}

// filter, merge and recover: the messages chosen into a new bag at opt.output.
int Write(const CopyOpt& opt, const BagSources& sources, const std::set<std::string>& chosen, bool* partial) {
  BagWriter writer(fileio::FilePath(opt.output + ".active"));
  // Topics declared without a message in the range are carried over as well.
  for (const std::string& file : sources.files()) {
    for (const std::shared_ptr<BagTopic>& topic : BagReader(file).topics()) {
      if (chosen.count(topic->name) != 0) writer.append_topic(topic->name, topic->type);
    }
  }
  const uint64_t messages = ReadMessages(
      opt, sources, chosen,
      [&writer](const BagMessage& m, const std::string& type) {
        writer.append_message(m.time, m.record_time, m.topic, m.data, type);
      },
      partial);
  const std::string written = writer.close();
  const BagLosses losses = writer.losses()->Total();
  if (written.empty() || !losses.empty()) {
    std::fprintf(stderr, "%s: could not write %s: %s\n", opt.name().c_str(), opt.output.c_str(),
                 written.empty() ? writer.problems().c_str() : losses.Describe().c_str());
    std::printf("wrote %llu messages to %s; %llu of them lost\n", static_cast<unsigned long long>(messages),
                written.empty() ? (opt.output + ".active").c_str() : written.c_str(),
                static_cast<unsigned long long>(losses.total()));
    return kExitLost;
  }
  std::printf("wrote %llu messages to %s\n", static_cast<unsigned long long>(messages), written.c_str());
  return kExitOk;
}

int RunCopy(CopyOpt::Kind kind, int argc, const char* const* argv) {
  CopyOpt opt(kind);
  int exit_code;
  if (!ParseCommandLine(&opt, argc, argv, &exit_code)) return exit_code;
  opt.files = PositionalsAsGiven(opt, argc, argv);
  const std::string wrong = opt.Check();
  if (!wrong.empty()) {
    std::fprintf(stderr, "%s: %s (usage: %s [OPTIONS] bag_file(s)...; see --help)\n", opt.name().c_str(),
                 wrong.c_str(), opt.name().c_str());
    return kExitUnusable;
  }
  struct stat st;
  if (kind != CopyOpt::Kind::kCat && stat(opt.output.c_str(), &st) == 0) {
    std::fprintf(stderr, "%s: %s exists; name a new file\n", opt.name().c_str(), opt.output.c_str());
    return kExitUnusable;
  }
  const BagSources sources(opt.name(), opt.files);
  if (sources.files().empty()) {
    std::fprintf(stderr, "%s: no messages to read\n", opt.name().c_str());
    return sources.ExitCode();
  }
  TopicSelection selection;
  selection.Set({}, opt.topics, opt.exclude);
  const std::set<std::string> chosen = sources.Select(&selection);
  if (chosen.empty()) {
    std::fprintf(stderr, "%s: no topic of the bags is selected by --topics and --exclude\n", opt.name().c_str());
    return kExitUnusable;
  }
  bool partial = sources.partial();
  const int written = kind == CopyOpt::Kind::kCat ? Cat(opt, sources, chosen, &partial)
                                                  : Write(opt, sources, chosen, &partial);
  if (written != kExitOk) return written;
  if (sources.unusable()) return kExitUnusable;
  return partial ? kExitPartial : kExitOk;
}

}  // namespace

int RunCat(int argc, const char* const* argv) { return RunCopy(CopyOpt::Kind::kCat, argc, argv); }
int RunFilter(int argc, const char* const* argv) { return RunCopy(CopyOpt::Kind::kFilter, argc, argv); }
int RunMerge(int argc, const char* const* argv) { return RunCopy(CopyOpt::Kind::kMerge, argc, argv); }
int RunRecover(int argc, const char* const* argv) { return RunCopy(CopyOpt::Kind::kRecover, argc, argv); }

}  // namespace cli
}  // namespace kelo
