#include "tools/kelo_bag/bus_recording.h"

#include <chrono>
#include <cstdio>
#include <memory>

#include "record/bag_record.h"
#include "tools/kelo_bag/format_units.h"
#include "tools/kelo_bag/lcm_bus.h"
#include "tools/kelo_bag/lcm_message_type.h"

namespace kelo {
namespace cli {

BagRecordWriter::Message RecordedMessage(const char* channel, int64_t recv_utime, const std::string& type,
                                         const void* data, size_t size, long record_time_ms) {
  BagRecordWriter::Message message;
  message.time = static_cast<long>(recv_utime / 1000);
  message.record_time = record_time_ms;
  message.topic = channel;
  message.type = type;
  message.data.assign(static_cast<const char*>(data), size);
  return message;
}

void SubscribeSelected(LcmBus* bus, TopicSelection selection, std::function<void(const LcmBus::Message&)> handler) {
  const std::vector<std::string> names = selection.LiteralNames();
  if (!names.empty() || selection.TakesEverything()) {
    bus->Subscribe(names, std::move(handler));
    return;
  }
  // Handlers run on one thread, so the selection needs no lock.
  bus->Subscribe({}, [selection = std::move(selection), handler = std::move(handler)](const LcmBus::Message& m) mutable {
    if (selection.Selects(m.channel)) handler(m);
  });
}

void FeedRecorder(LcmBus* bus, BagRecord* record, const TopicSelection& selection) {
  auto namer = std::make_shared<LcmTypeNamer>();  // handlers run on one thread
  SubscribeSelected(bus, selection, [record, namer](const LcmBus::Message& m) {
    record->AppendMessage(static_cast<long>(m.recv_utime / 1000), m.channel,
                          namer->TypeOf(m.channel, m.data, m.size),
                          std::string(static_cast<const char*>(m.data), m.size));
  });
}

bool PumpBus(LcmBus* bus, const std::function<bool()>& stop, const std::function<void()>& every_second,
             const std::function<void()>& feed) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point next = Clock::now() + std::chrono::seconds(1);
  while (!stop()) {
    if (feed) {
      feed();
      int handled;
      while ((handled = bus->Handle(0)) > 0) {
      }
      if (handled < 0 && !stop()) return false;
    } else if (bus->Handle(100) < 0 && !stop()) {
      // Short waits, so that a stop request is seen within a tenth of a second. The signal
      // that asks to stop also interrupts LCM's wait, which LCM reports as a failure.
      return false;
    }
    if (Clock::now() >= next) {
      next += std::chrono::seconds(1);
      if (Clock::now() >= next) next = Clock::now() + std::chrono::seconds(1);  // after a long stall
      if (every_second) every_second();
    }
  }
  return true;
}

bool FinishRecording(BagRecord* record, int drain_timeout_ms) {
  const bool drained = record->Drain(drain_timeout_ms);
  record->Stop();
  const size_t left = record->DiscardQueued();
  if (!drained) {
    std::fprintf(stderr, "record: %zu messages could not be written within %d s and are lost\n", left,
                 drain_timeout_ms / 1000);
  }
  return drained;
}

bool ReportRecording(const std::string& verb, uint64_t messages, uint64_t bytes, const BagLosses& losses,
                     const std::vector<std::string>& incomplete, uint64_t bus_drops) {
  constexpr size_t kTopicLines = 20;
  size_t shown = 0;
  for (const auto& entry : losses.by_topic()) {
    if (++shown > kTopicLines) {
      std::printf("lost on %zu more topics\n", losses.by_topic().size() - kTopicLines);
      break;
    }
    std::printf("lost on %s: %s\n", entry.first.c_str(), BagLosses::Describe(entry.second).c_str());
  }
  for (const std::string& file : incomplete) {
    std::printf("could not complete %s; it stays readable as unfinished\n", file.c_str());
  }
  std::string total =
      verb + " " + std::to_string(messages) + " messages (" + FormatBytes(static_cast<double>(bytes)) + ")";
  if (losses.empty()) {
    total += bus_drops == 0 ? ", none lost" : "";
  } else {
    total += "; " + std::to_string(losses.total()) + " of them lost: " + losses.Describe();
  }
  if (bus_drops > 0) {
    total += "; the bus dropped " + std::to_string(bus_drops) +
             " datagrams before they reached the recorder (its receive buffer was full)";
  }
  std::printf("%s\n", total.c_str());
  std::fflush(stdout);
  return losses.empty() && incomplete.empty() && bus_drops == 0;
}

}  // namespace cli
}  // namespace kelo
