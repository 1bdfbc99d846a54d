#ifndef KELO_TOOLS_KELO_BAG_BUS_RECORDING_H_
#define KELO_TOOLS_KELO_BAG_BUS_RECORDING_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/bag/bag_loss_ledger.h"
#include "record/bag_record_writer.h"
#include "tools/kelo_bag/lcm_bus.h"
#include "tools/kelo_bag/topic_selection.h"

namespace kelo {

class BagRecord;

namespace cli {

// How the tool connects a bus to a recorder, and how it stops without losing what it
// received: it stops taking messages from the bus first, then lets the recorder write what
// it holds, then stops the recorder, which completes its file.
//
//   FeedRecorder(bus, &record, opt.Selection());
//   record.Start();
//   PumpBus(bus, [] { return StopSignal::Requested(); }, [&] { status.Show(...); });
//   FinishRecording(&record, kDrainTimeoutMs);

// The record of one LCM message, as the recorder files it: time = LCM's receive time in ms,
// `type` as LcmTypeNamer names it. `record_time_ms` is when the tool took it.
BagRecordWriter::Message RecordedMessage(const char* channel, int64_t recv_utime, const std::string& type,
                                         const void* data, size_t size, long record_time_ms);

// Subscribes `handler` to the channels of `bus` that `selection` takes: literally when it
// names them all, otherwise to every channel, with the selection deciding per channel.
void SubscribeSelected(LcmBus* bus, TopicSelection selection, std::function<void(const LcmBus::Message&)> handler);

// Subscribes `record` to the channels of `bus` that `selection` takes, typing the messages
// with an LcmTypeNamer.
void FeedRecorder(LcmBus* bus, BagRecord* record, const TopicSelection& selection);

// Dispatches the bus's messages on this thread until `stop` returns true, calling
// `every_second` once a second. With `feed`, each round first calls it (it publishes on the
// bus, from this thread, whatever is to be published, waiting briefly for something), then
// dispatches everything published. Returns false when the bus failed (LCM says why on
// stderr).
bool PumpBus(LcmBus* bus, const std::function<bool()>& stop, const std::function<void()>& every_second,
             const std::function<void()>& feed = nullptr);

// Waits, at most `drain_timeout_ms`, until the recorder has written every message it took,
// then stops it (completing its file). Returns false, after saying on stderr how many
// messages were left unwritten (and counting them lost), when the time ran out.
bool FinishRecording(BagRecord* record, int drain_timeout_ms);

// Says on standard output how a recording ended: a line for each topic that lost messages
// and for each file left unfinished, then a last line with the totals,
// "<verb> 1200 messages (3.4 MB), none lost" or
// "<verb> 1200 messages (3.4 MB); 3 of them lost: 2 queue full, 1 disk full", followed by
// "; the bus dropped 5 datagrams before they reached the recorder (...)" when `bus_drops`
// (LcmBus::KernelDrops) is not 0. Returns whether nothing was lost and every file was
// completed.
bool ReportRecording(const std::string& verb, uint64_t messages, uint64_t bytes, const BagLosses& losses,
                     const std::vector<std::string>& incomplete, uint64_t bus_drops = 0);

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_BUS_RECORDING_H_
