#include "play/bag_view.h"

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

#include "platform/bag/bag_reader.h"
#include "tests/play/play_test_bags.h"

namespace kelo {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing_support::At;
using testing_support::TempDir;
using testing_support::TestMessage;
using testing_support::WriteBag;

class BagViewTest : public testing::Test {
 protected:
  BagReader* Open(const std::string& name, const std::vector<TestMessage>& messages) {
    readers_.emplace_back(new BagReader(WriteBag(dir_, name, messages)));
    return readers_.back().get();
  }
  static std::vector<std::string> Drain(BagView* view) {
    std::vector<std::string> out;
    while (std::shared_ptr<BagMessage> msg = view->pop_message()) out.push_back(msg->data);
    return out;
  }

  TempDir dir_;
  std::vector<std::unique_ptr<BagReader>> readers_;
};

// Catches a merge out of time order, and ties not given to the bag appended first (then the earlier message).
TEST_F(BagViewTest, MergesManyBagsIntoOneTimeOrder) {
  BagView view;
  view.append_bag(Open("a", {{1000, "/a", "a0"}, {1002, "/a", "a1"}, {1002, "/a", "a2"}, {1005, "/a", "a3"}}));
  view.append_bag(Open("b", {{999, "/b", "b0"}, {1002, "/b", "b1"}, {1004, "/b", "b2"}}));
  view.append_bag(Open("c", {{1002, "/c", "c0"}, {1006, "/c", "c1"}}));
  view.set_time_ms(0, 0);
  EXPECT_THAT(Drain(&view), ElementsAre("b0", "a0", "a1", "a2", "b1", "c0", "b2", "a3", "c1"));
}

// A range counts from the earliest bag, positions every bag (closing finished ones), ends inclusively and is
// clipped to the longest bag.
TEST_F(BagViewTest, RangesPositionEveryBagAndEndAtTheMillisecond) {
  BagReader* a = Open("a", At("/a", {1000, 1500}));
  BagReader* b = Open("b", At("/b", {1200, 4000}));
  BagReader* c = Open("c", At("/c", {2200, 2300}));
  BagReader* d = Open("d", At("/d", {1000, 1001, 1002, 1003, 1004}));
  // The bags, the range asked for, the duration it gets, and what plays.
  using Row = std::tuple<std::vector<BagReader*>, long, long, long, std::vector<std::string>>;
  for (const auto& [bags, start, duration, expected_duration, played] : std::vector<Row>{
           {{a, b, c}, 0, 0, 3000, {"/a@1000", "/b@1200", "/a@1500", "/c@2200", "/c@2300", "/b@4000"}},
           {{c, b, a}, 100, 60000, 2900, {"/b@1200", "/a@1500", "/c@2200", "/c@2300", "/b@4000"}},
           {{a, b, c}, 1250, 0, 1750, {"/c@2300", "/b@4000"}},
           {{a, b, c}, 0, 700, 700, {"/a@1000", "/b@1200", "/a@1500"}},  // c begins after the end
           {{d}, 1, 2, 2, {"/d@1001", "/d@1002", "/d@1003"}}}) {
    BagView view;
    for (BagReader* r : bags) view.append_bag(r);
    view.set_time_ms(start, duration);
    EXPECT_EQ(view.duration(), expected_duration) << start << "+" << duration;
    EXPECT_EQ(Drain(&view), played) << start << "+" << duration;
  }
  // Positioned again, bags are placed while the old end holds: an earlier start works, a
  // start past the old end closes every bag.
  BagView view, narrowed;
  for (BagReader* r : {a, b, c}) view.append_bag(r);
  view.set_time_ms(1250, 0);
  view.set_time_ms(300, 0);
  EXPECT_THAT(Drain(&view), ElementsAre("/a@1500", "/c@2200", "/c@2300", "/b@4000"));
  narrowed.append_bag(a);
  narrowed.set_time_ms(0, 100);
  narrowed.set_time_ms(400, 0);
  EXPECT_THAT(Drain(&narrowed), IsEmpty());
}

// The filter passes only its topics once positioned (empty: all); a reset replays the last range.
TEST_F(BagViewTest, FilterAndResetReplayTheFilteredRange) {
  std::vector<TestMessage> messages;
  for (long t = 0; t < 9; ++t) messages.emplace_back(1000 + t, "/t" + std::to_string(t % 3));
  BagView view;
  view.append_bag(Open("mixed", messages));
  view.append_bag(Open("other", At("/t1", {1003})));
  view.set_filter_topics({"/t1"});
  view.append_filter_topic("/t2");
  view.set_time_ms(1, 6);
  for (int round = 0; round < 2; ++round) {
    EXPECT_THAT(Drain(&view), ElementsAre("/t1@1001", "/t2@1002", "/t1@1003", "/t1@1004", "/t2@1005",
                                          "/t1@1007"));
    view.reset_message();
  }
  view.set_filter_topics({"/t2"});  // the messages under the cursors still come
  EXPECT_THAT(Drain(&view), ElementsAre("/t1@1001", "/t2@1002", "/t1@1003", "/t2@1005"));
  view.set_filter_topics({});
  view.set_time_ms(0, 0);
  EXPECT_EQ(Drain(&view).size(), 10u);
  view.set_filter_topics({"/none"});
  view.set_time_ms(0, 0);
  EXPECT_THAT(Drain(&view), IsEmpty());
}

// Topics are the union of the bags (the later type wins); asking for an unknown one lists it.
TEST_F(BagViewTest, TopicsAreTheUnionOfTheBagsWithTheLaterTypeWinning) {
  BagView view;
  view.append_bag(Open("a", {{1000, "/imu", "", "v1.Imu"}, {1001, "/gps", "", "v1.Gps"}}));
  view.append_bag(Open("b", {{1000, "/imu", "", "v2.Imu"}, {1001, "/cam", "", "v1.Image"}}));
  EXPECT_EQ(view.get_message_type("/nowhere"), "");
  EXPECT_THAT(view.topics(), ElementsAre(Pair("/cam", "v1.Image"), Pair("/gps", "v1.Gps"), Pair("/imu", "v2.Imu"),
                                         Pair("/nowhere", "")));
}

}  // namespace
}  // namespace kelo
