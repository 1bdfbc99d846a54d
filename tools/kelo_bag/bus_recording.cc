#include "tools/kelo_bag/bus_recording.h"

#include <sys/time.h>

#include <chrono>
#include <cstdio>

#include "record/bag_record.h"
#include "tools/kelo_bag/lcm_bus.h"
#include "tools/kelo_bag/lcm_message_type.h"

namespace kelo {
namespace cli {

long WallClockMs() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<long>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

BagRecordWriter::Message RecordedMessage(const char* channel, int64_t recv_utime, const void* data,
                                         size_t size, long record_time_ms) {
  BagRecordWriter::Message message;
  message.time = static_cast<long>(recv_utime / 1000);
  message.record_time = record_time_ms;
  message.topic = channel;
  message.type = LcmMessageType(data, size);
  message.data.assign(static_cast<const char*>(data), size);
  return message;
}

void FeedRecorder(LcmBus* bus, BagRecord* record, const std::vector<std::string>& topics) {
  bus->Subscribe(topics, [record](const LcmBus::Message& m) {
    record->AppendMessage(static_cast<long>(m.recv_utime / 1000), m.channel, LcmMessageType(m.data, m.size),
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
  if (!drained) {
    std::fprintf(stderr, "record: %d messages could not be written within %d s and are lost\n",
                 record->GetRecordMonitor()->queue_size(), drain_timeout_ms / 1000);
  }
  record->Stop();
  return drained;
}

}  // namespace cli
}  // namespace kelo
