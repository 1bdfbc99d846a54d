#include <gtest/gtest.h>

#include "record/bag_record.h"

namespace kelo {
namespace {

using Queue = BagRecord::MessageInfoQueue;

TEST(MessageInfoQueueTest, EmptyAndSingleRecordHistoriesHaveNoRate) {
  Queue queue;
  EXPECT_EQ(queue.freq(), 0.0);
  EXPECT_EQ(queue.pre_bytes(), 0.0);
  EXPECT_EQ(queue.total_bytes(), 0u);

  queue.append({10.0, 100});
  EXPECT_EQ(queue.freq(), 0.0);
  EXPECT_EQ(queue.pre_bytes(), 0.0);
  EXPECT_EQ(queue.total_bytes(), 100u);
}

TEST(MessageInfoQueueTest, RatesCountIntervalsNotRecords) {
  Queue queue;
  queue.append({10.000, 100});
  queue.append({10.500, 300});
  EXPECT_DOUBLE_EQ(queue.freq(), 2.0);
  EXPECT_DOUBLE_EQ(queue.pre_bytes(), 600.0);

  queue.append({11.000, 50});
  EXPECT_DOUBLE_EQ(queue.freq(), 2.0);
  EXPECT_DOUBLE_EQ(queue.pre_bytes(), 350.0);
  EXPECT_EQ(queue.total_bytes(), 450u);
}

TEST(MessageInfoQueueTest, SpansUpToTheThresholdGiveNoRate) {
  Queue same_time;
  same_time.append({10.0, 100});
  same_time.append({10.0, 100});
  EXPECT_EQ(same_time.freq(), 0.0);
  EXPECT_EQ(same_time.pre_bytes(), 0.0);

  Queue stepped_back;
  stepped_back.append({10.0, 100});
  stepped_back.append({9.0, 100});
  EXPECT_EQ(stepped_back.freq(), 0.0);
  EXPECT_EQ(stepped_back.pre_bytes(), 0.0);

  Queue threshold;  // a span of exactly the threshold gives no rate either
  threshold.append({0.0, 100});
  threshold.append({0.00001, 100});
  EXPECT_EQ(threshold.freq(), 0.0);
  EXPECT_EQ(threshold.pre_bytes(), 0.0);

  Queue one_millisecond;
  one_millisecond.append({10.000, 100});
  one_millisecond.append({10.001, 100});
  EXPECT_NEAR(one_millisecond.freq(), 1000.0, 1e-6);
}

TEST(MessageInfoQueueTest, HistoryKeepsTheNewest5000WhileTotalsCountAll) {
  Queue queue;
  // 5001 records 10 ms apart; the first is much larger so its loss shows in the byte rate.
  queue.append({0.0, 1000000});
  for (int i = 1; i <= 5000; ++i) queue.append({i * 0.01, 10});
  EXPECT_EQ(queue.total_bytes(), 1000000u + 5000u * 10u);
  // Held: records 1..5000, spanning 49.99 s; the oldest held record's bytes are left out.
  EXPECT_NEAR(queue.freq(), 4999 / 49.99, 1e-9);
  EXPECT_NEAR(queue.pre_bytes(), 4999 * 10 / 49.99, 1e-9);

  for (int i = 5001; i <= 20000; ++i) queue.append({i * 0.01, 20});
  EXPECT_NEAR(queue.freq(), 4999 / 49.99, 1e-6) << "the history is bounded by count, not age";
  EXPECT_NEAR(queue.pre_bytes(), 4999 * 20 / 49.99, 1e-6);
}

TEST(MessageInfoQueueTest, TheRateNowFallsToZeroOnceAStreamGoesSilent) {
  Queue fast, slow;
  for (int i = 0; i <= 10; ++i) fast.append({100.0 + i * 0.1, 50});  // 10 Hz, last at 101.0
  for (int i = 0; i <= 4; ++i) slow.append({100.0 + i * 5.0, 50});   // 0.2 Hz, last at 120.0
  const struct {
    const Queue* queue;
    double now;
    bool silent;
  } cases[] = {{&fast, 101.5, false}, {&fast, 102.9, false}, {&fast, 103.1, true},
               {&slow, 123.0, false}, {&slow, 129.9, false}, {&slow, 130.1, true}};
  for (const auto& c : cases) {
    tools::interactive::BagRecordMessageInfo info;
    FillMonitorRates(*c.queue, c.now, &info);
    EXPECT_DOUBLE_EQ(c.queue->freq(), info.freq()) << c.now;
    EXPECT_DOUBLE_EQ(c.queue->pre_bytes(), info.pre_bytes());
    EXPECT_EQ(c.queue->total_bytes(), info.total_bytes());
    EXPECT_DOUBLE_EQ(c.silent ? 0.0 : c.queue->freq(), info.current_freq()) << c.now;
    EXPECT_DOUBLE_EQ(c.silent ? 0.0 : c.queue->pre_bytes(), info.current_bytes()) << c.now;
  }
}

}  // namespace
}  // namespace kelo
