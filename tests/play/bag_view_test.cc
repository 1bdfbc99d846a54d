#include "play/bag_view.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/bag/bag_reader.h"
#include "tests/play/play_test_bags.h"
#include "tests/support/temp_dir.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Pair;
using testing_support::At;
using testing_support::TempDir;
using testing_support::TestMessage;
using testing_support::WriteBag;

// Bags written to a scratch directory, each opened by a reader that the fixture owns, as
// the player owns them.
class BagViewTest : public testing::Test {
 protected:
  BagReader* Open(const std::string& name, const std::vector<TestMessage>& messages) {
    return OpenPath(WriteBag(dir_, name, messages));
  }
  BagReader* OpenPath(const std::string& path) {
    readers_.emplace_back(new BagReader(path));
    return readers_.back().get();
  }

  // Payloads of every message left in the view, in the order it gives them.
  static std::vector<std::string> Drain(BagView* view) {
    std::vector<std::string> out;
    while (std::shared_ptr<BagMessage> msg = view->pop_message()) out.push_back(msg->data);
    return out;
  }

  TempDir dir_;
  std::vector<std::unique_ptr<BagReader>> readers_;
};

TEST_F(BagViewTest, TiesGoToTheBagAppendedFirst) {
  std::vector<BagReader*> bags;
  for (const std::string name : {"a", "b", "c"}) {
    bags.push_back(
        Open(name, {{100, "/t", name + "100"}, {200, "/t", name + "200"}, {200, "/t", name + "200'"}}));
  }
  std::vector<int> order = {0, 1, 2};
  do {
    BagView view;
    for (int i : order) view.append_bag(bags[i]);
    view.set_time_ms(0, 0);
    std::vector<std::string> expected;
    for (const std::string suffix : {"100", "200"}) {
      for (int i : order) {
        const std::string name(1, static_cast<char>('a' + i));
        expected.push_back(name + suffix);
        if (suffix == "200") expected.push_back(name + "200'");
      }
    }
    EXPECT_THAT(Drain(&view), ElementsAreArray(expected)) << order[0] << order[1] << order[2];
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(BagViewTest, MergesManyBagsIntoOneTimeOrder) {
  // Five bags with irregular, overlapping timelines; the merge must equal a stable sort
  // by time of (bag, position).
  BagView view;
  std::vector<std::tuple<long, int, std::string>> all;
  unsigned seed = 12345;
  for (int bag = 0; bag < 5; ++bag) {
    std::vector<TestMessage> messages;
    long time = 1000 + bag * 37;
    for (int i = 0; i < 200; ++i) {
      seed = seed * 1103515245u + 12345u;
      time += (seed >> 16) % 4;  // steps of 0 to 3 ms: many ties
      const std::string data = "bag" + std::to_string(bag) + "#" + std::to_string(i);
      messages.emplace_back(time, "/t" + std::to_string(i % 3), data);
      all.emplace_back(time, bag, data);
    }
    view.append_bag(Open("bag" + std::to_string(bag), messages));
  }
  std::stable_sort(all.begin(), all.end(), [](const auto& x, const auto& y) {
    return std::get<0>(x) != std::get<0>(y) ? std::get<0>(x) < std::get<0>(y)
                                            : std::get<1>(x) < std::get<1>(y);
  });
  std::vector<std::string> expected;
  for (const auto& entry : all) expected.push_back(std::get<2>(entry));
  view.set_time_ms(0, 0);
  EXPECT_THAT(Drain(&view), ElementsAreArray(expected));
}

TEST_F(BagViewTest, ZeroRangePlaysEveryBagToTheEndOfTheLongest) {
  BagView view;
  view.append_bag(Open("short", At("/a", {1000, 1500})));
  view.append_bag(Open("long", At("/b", {1200, 4000})));
  view.set_time_ms(0, 0);
  EXPECT_EQ(view.begin_time(), 1000);
  EXPECT_EQ(view.duration(), 3000);
  EXPECT_THAT(Drain(&view), ElementsAre("/a@1000", "/b@1200", "/a@1500", "/b@4000"));
}

TEST_F(BagViewTest, RangeEndIsInclusiveToTheMillisecond) {
  std::vector<long> times;
  for (long t = 1000; t <= 1020; ++t) times.push_back(t);
  const std::string path = WriteBag(dir_, "ms", At("/t", times));
  for (long duration = 1; duration < 20; ++duration) {
    BagReader reader(path);
    BagView view;
    view.append_bag(&reader);
    view.set_time_ms(0, duration);
    EXPECT_EQ(view.duration(), duration);
    std::vector<std::string> played = Drain(&view);
    ASSERT_EQ(played.size(), static_cast<size_t>(duration + 1)) << "duration " << duration;
    EXPECT_EQ(played.back(), "/t@" + std::to_string(1000 + duration)) << "a message exactly at the end plays";
  }
}

TEST_F(BagViewTest, RangeReachingPastEveryBagIsClippedToTheLongest) {
  BagView view;
  view.append_bag(Open("a", At("/a", {1000, 2000})));
  view.append_bag(Open("b", At("/b", {1500, 2500})));
  view.set_time_ms(100, 60000);
  EXPECT_EQ(view.duration(), 2500 - 1100);
  EXPECT_THAT(Drain(&view), ElementsAre("/b@1500", "/a@2000", "/b@2500"));
}

TEST_F(BagViewTest, StartPositionsEachBagAndClosesTheOnesAlreadyOver) {
  BagView view;
  view.append_bag(Open("early", At("/early", {1000, 1100, 1200})));
  view.append_bag(Open("main", At("/main", {1000, 1500, 2000, 2500})));
  view.append_bag(Open("late", At("/late", {2200, 2300})));
  view.set_time_ms(1250, 0);  // 2250: "early" is over, "late" starts after it
  EXPECT_THAT(Drain(&view), ElementsAre("/late@2300", "/main@2500"));

  view.set_time_ms(300, 0);  // 1300: "late" is positioned on its first message
  EXPECT_THAT(Drain(&view),
              ElementsAre("/main@1500", "/main@2000", "/late@2200", "/late@2300", "/main@2500"));
}

TEST_F(BagViewTest, FilterPassesOnlyItsTopics) {
  std::vector<TestMessage> messages;
  for (long t = 0; t < 12; ++t) messages.emplace_back(1000 + t, "/t" + std::to_string(t % 3));
  BagReader* reader = Open("mixed", messages);

  BagView view;
  view.append_bag(reader);
  view.set_filter_topics({"/t1"});
  view.append_filter_topic("/t2");
  view.append_filter_topic("/t2");
  view.set_time_ms(0, 0);
  EXPECT_THAT(Drain(&view), ElementsAre("/t1@1001", "/t2@1002", "/t1@1004", "/t2@1005", "/t1@1007",
                                        "/t2@1008", "/t1@1010", "/t2@1011"));

  view.set_filter_topics({});
  view.set_time_ms(0, 0);
  EXPECT_EQ(Drain(&view).size(), 12u) << "an empty filter passes every topic";

  view.set_filter_topics({"/none"});
  view.set_time_ms(0, 0);
  EXPECT_THAT(Drain(&view), IsEmpty());
}

TEST_F(BagViewTest, FilterChangedAfterPositioningStillGivesTheMessageUnderTheCursor) {
  BagView view;
  view.append_bag(Open("a", {{1000, "/x"}, {1001, "/y"}, {1002, "/x"}, {1003, "/y"}}));
  view.set_time_ms(0, 0);
  view.set_filter_topics({"/y"});
  EXPECT_THAT(Drain(&view), ElementsAre("/x@1000", "/y@1001", "/y@1003"));
}

TEST_F(BagViewTest, SecondPositioningPastTheOldEndYieldsNothing) {
  std::vector<long> times;
  for (long t = 1000; t <= 2000; t += 100) times.push_back(t);
  BagReader* a = Open("a", At("/a", times));
  BagReader* b = Open("b", At("/b", times));
  BagView view;
  view.append_bag(a);
  view.append_bag(b);
  view.set_time_ms(0, 100);
  EXPECT_THAT(Drain(&view), ElementsAre("/a@1000", "/b@1000", "/a@1100", "/b@1100"));
  view.set_time_ms(500, 0);
  EXPECT_THAT(Drain(&view), IsEmpty());
  EXPECT_EQ(view.get_min_time_bag(), nullptr);

  // A view that was never narrowed does play from that start.
  BagView fresh;
  fresh.append_bag(a);
  fresh.set_time_ms(500, 0);
  EXPECT_THAT(Drain(&fresh), ElementsAre("/a@1500", "/a@1600", "/a@1700", "/a@1800", "/a@1900", "/a@2000"));
}

TEST_F(BagViewTest, ResetReplaysTheLastRangeFromItsStart) {
  BagView view;
  view.append_bag(Open("a", At("/a", {1000, 1010, 1020, 1030})));
  view.append_bag(Open("b", At("/b", {1005, 1015, 1025})));
  view.set_filter_topics({"/a", "/b"});
  view.set_time_ms(10, 15);
  const std::vector<std::string> first = Drain(&view);
  EXPECT_THAT(first, ElementsAre("/a@1010", "/b@1015", "/a@1020", "/b@1025"));
  for (int round = 0; round < 3; ++round) {
    view.reset_message();
    EXPECT_EQ(Drain(&view), first);
  }
}

TEST_F(BagViewTest, BeginTimeIsTheEarliestStartButABagAtZeroNeverFixesIt) {
  struct Case {
    std::vector<long> starts;  // -1: a file that cannot be opened
    long begin;
  };
  const std::vector<Case> cases = {
      {{0, 500}, 500},  {{500, 0}, 0},  {{700, 500, 900}, 500},
      {{-1, 500}, 500}, {{500, -1}, 0}, {{0, 0, 300}, 300},
      {{}, 0},          {{42}, 42},
  };
  int n = 0;
  for (const Case& c : cases) {
    BagView view;
    for (long start : c.starts) {
      const std::string name = "b" + std::to_string(n++);
      view.append_bag(start < 0 ? OpenPath(dir_.file(name + ".missing"))
                                : Open(name, At("/t", {start, start + 5})));
    }
    EXPECT_EQ(view.begin_time(), c.begin) << testing::PrintToString(c.starts);
  }
}

TEST_F(BagViewTest, TopicsAreTheUnionOfTheBagsWithTheLaterTypeWinning) {
  BagView view;
  view.append_bag(Open("a", {{1000, "/imu", "", "v1.Imu"}, {1001, "/gps", "", "v1.Gps"}}));
  view.append_bag(Open("b", {{1000, "/imu", "", "v2.Imu"}, {1001, "/cam", "", "v1.Image"}}));
  EXPECT_THAT(view.topics(),
              ElementsAre(Pair("/cam", "v1.Image"), Pair("/gps", "v1.Gps"), Pair("/imu", "v2.Imu")));
  EXPECT_EQ(view.get_message_type("/gps"), "v1.Gps");
}

TEST_F(BagViewTest, UnknownTopicHasAnEmptyTypeAndIsListedFromThen) {
  BagView view;
  view.append_bag(Open("a", At("/a", {1000})));
  EXPECT_EQ(view.get_message_type("/nowhere"), "");
  EXPECT_THAT(view.topics(), ElementsAre(Pair("/a", "demo.Raw"), Pair("/nowhere", "")));
}

TEST_F(BagViewTest, EmptyViewHasNothingToGive) {
  BagView view;
  EXPECT_EQ(view.begin_time(), 0);
  EXPECT_EQ(view.duration(), std::numeric_limits<long>::max()) << "no end before the first positioning";
  EXPECT_EQ(view.get_min_time_bag(), nullptr);
  EXPECT_EQ(view.pop_message(), nullptr);
  view.set_time_ms(0, 0);
  EXPECT_EQ(view.duration(), 0);
  view.reset_message();
  EXPECT_EQ(view.pop_message(), nullptr);
}

TEST_F(BagViewTest, ExtremeRangesStayWellDefined) {
  // Ranges far beyond any bag wrap like machine arithmetic instead of overflowing; the
  // sanitizers would flag an overflow here.
  BagReader* reader = Open("a", At("/a", {1000, 2000, 3000}));
  const long big = std::numeric_limits<long>::max();
  const long small = std::numeric_limits<long>::min();
  for (long start : {0L, big, small, big / 1000 + 1, small / 1000 - 1}) {
    for (long duration : {0L, big, small, -1L, 1L}) {
      BagView view;
      view.append_bag(reader);
      view.set_time(start, duration);
      view.set_time_ms(start, duration);
      (void)view.duration();
      std::vector<std::string> played = Drain(&view);
      EXPECT_LE(played.size(), 3u);
    }
  }
}

}  // namespace
}  // namespace kelo
