#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "record/bag_record.h"

namespace kelo {
namespace {

using Queue = BagRecord::MessageInfoQueue;

// Catches counting records instead of intervals, the oldest's bytes in the rate, and a span at the threshold rated.
TEST(MessageInfoQueueTest, RatesCountIntervalsAndShortSpansHaveNone) {
  const struct {
    std::vector<std::pair<double, uint64_t>> records;
    double freq, bytes;
  } cases[] = {{{}, 0, 0},
               {{{10.0, 100}, {10.5, 300}}, 2, 600},
               {{{10.0, 100}, {9.0, 100}}, 0, 0},
               {{{0.0, 100}, {0.00001, 100}}, 0, 0},
               {{{10.000, 100}, {10.001, 100}}, 1000, 100000}};
  for (const auto& c : cases) {
    Queue queue;
    uint64_t total = 0;
    for (const auto& [time, bytes] : c.records) {
      queue.append({time, bytes});
      total += bytes;
    }
    EXPECT_NEAR(queue.freq(), c.freq, 1e-6) << c.records.size();
    EXPECT_NEAR(queue.pre_bytes(), c.bytes, 1e-3) << c.records.size();
    EXPECT_EQ(queue.total_bytes(), total);
  }
}

TEST(MessageInfoQueueTest, HistoryKeepsTheNewest5000WhileTotalsCountAll) {
  Queue queue;  // 5001 records 10 ms apart; the first is large so its eviction shows in the byte rate
  queue.append({0.0, 1000000});
  for (int i = 1; i <= 5000; ++i) queue.append({i * 0.01, 10});
  EXPECT_EQ(queue.total_bytes(), 1000000u + 5000u * 10u);
  EXPECT_NEAR(queue.freq(), 4999 / 49.99, 1e-9);
  EXPECT_NEAR(queue.pre_bytes(), 4999 * 10 / 49.99, 1e-9);
}

// Catches a fixed silence for slow streams and a wrong edge: 2 s, or two intervals when longer.
TEST(MessageInfoQueueTest, TheRateNowFallsToZeroOnceAStreamGoesSilent) {
  Queue fast, slow;
  for (int i = 0; i <= 10; ++i) fast.append({100.0 + i * 0.1, 50});  // 10 Hz, last at 101.0
  for (int i = 0; i <= 4; ++i) slow.append({100.0 + i * 5.0, 50});   // 0.2 Hz, last at 120.0
  for (const auto& [queue, now, silent] : std::vector<std::tuple<const Queue*, double, bool>>{
           {&fast, 102.9, false}, {&fast, 103.1, true}, {&slow, 129.9, false}, {&slow, 130.1, true}}) {
    tools::interactive::BagRecordMessageInfo info;
    FillMonitorRates(*queue, now, &info);
    EXPECT_DOUBLE_EQ(queue->freq(), info.freq()) << now;
    EXPECT_DOUBLE_EQ(queue->pre_bytes(), info.pre_bytes());
    EXPECT_EQ(queue->total_bytes(), info.total_bytes());
    EXPECT_DOUBLE_EQ(silent ? 0.0 : queue->freq(), info.current_freq()) << now;
    EXPECT_DOUBLE_EQ(silent ? 0.0 : queue->pre_bytes(), info.current_bytes()) << now;
  }
}

}  // namespace
}  // namespace kelo
