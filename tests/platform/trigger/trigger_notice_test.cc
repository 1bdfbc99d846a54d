#include "platform/trigger/trigger_notice.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/trigger/trigger_protocol.h"
#include "platform/udp/udp_message.h"

namespace kelo {
namespace {

// Catches a notice written in other words, one that does not parse back to itself (a bare time included), and
// any text it could not have written taken, or the notice touched by a refused one.
TEST(TriggerNoticeTest, ParsesBackExactlyTheTextsItWrites) {
  EXPECT_EQ((TriggerNotice{1709647629000, "brake_event"}.ToText()), "trigger 1709647629000 brake_event");
  const std::vector<TriggerNotice> valid = {
      {0, ""}, {9, "-"}, {10, "A-b.c_9z"}, {1709647629001, ""}, {TriggerNotice::kMaxTimeMs, std::string(64, 'Z')}};
  for (const TriggerNotice& notice : valid) {
    TriggerNotice back{-7, "untouched"};
    ASSERT_TRUE(notice.IsValid() && TriggerNotice::Parse(notice.ToText(), &back)) << notice.ToText();
    EXPECT_EQ(std::make_pair(back.time_ms, back.label), std::make_pair(notice.time_ms, notice.label));
  }
  const std::vector<std::string> bad = {
      "", "trigger", "trigger ", "trigger  1", "Trigger 1", "trigger 1 ", "trigger 1  a", "trigger 01",
      "trigger -1", "trigger +1", "trigger 1x", "trigger 0x10", "trigger 253402300800000",
      "trigger 99999999999999999999", "trigger 1 a b", "trigger 1 a/b", "trigger 1 a\tb",
      "trigger 1 " + std::string(65, 'l'), std::string("trigger 1 a\0b", 13), "trigger 1\n", " trigger 1",
      "xtrigger 1"};
  for (const std::string& text : bad) {
    TriggerNotice notice{42, "kept"};
    EXPECT_FALSE(TriggerNotice::Parse(text, &notice)) << text;
    EXPECT_EQ(notice.ToText(), "trigger 42 kept") << "touched by " << text;
  }
  for (const char* label : {"a b", "../x", "a\\b", "\xc3\xa4", "a*"})
    EXPECT_FALSE((TriggerNotice::IsValidLabel(label) || TriggerNotice{1, label}.IsValid())) << label;
  EXPECT_FALSE((TriggerNotice{-1, ""}.IsValid()));
  EXPECT_FALSE((TriggerNotice{TriggerNotice::kMaxTimeMs + 1, ""}.IsValid()));
}

// Encodes `value`; decodes it back followed by more bytes, without its last field of `last` bytes (as an
// older peer sends it: the field then empty), and never from a shorter cut.
template <typename T, typename Text>
void CheckCuts(const T& value, size_t last, Text text) {
  UdpMessage message;
  trigger_protocol::Encode(value, &message);
  const std::string body = message.body(), full = text(value);
  T got;
  ASSERT_TRUE(trigger_protocol::Decode(body + "more", &got));
  EXPECT_EQ(text(got), full);
  ASSERT_TRUE(trigger_protocol::Decode(body.substr(0, body.size() - last), &got));
  EXPECT_EQ(text(got), full.substr(0, full.rfind(' ') + 1));
  for (size_t cut = 0; cut < body.size(); ++cut)
    EXPECT_EQ(cut >= body.size() - last, trigger_protocol::Decode(body.substr(0, cut), &got)) << full << " at " << cut;
}

// Catches a field lost or misread, trailing bytes refused, a body of an older peer refused or its missing field
// left as it was, and a part of a body taken for one.
TEST(TriggerProtocolTest, BodiesDecodeToWhatWasEncodedAndNeverFromAPartOfOne) {
  using namespace trigger_protocol;
  CheckCuts<TriggerEvent>({1709647629000, "brake", "c0ffee"}, 4 + 6, [](const TriggerEvent& e) {
    return std::to_string(e.time_ms) + " " + e.label + " " + e.mac;
  });
  CheckCuts<TriggerAck>({"bag_record", "node_7", 9, 1709647634000, "/rec", "too-many"}, 4 + 8, [](const TriggerAck& a) {
    return a.name + " " + a.node + " " + std::to_string(a.instance) + " " + std::to_string(a.due_ms) + " " +
           a.directory + " " + a.refused;
  });
  CheckCuts<TriggerDone>({"bag_record", "node_7", 9, "/rec/a.kelobag", "why"}, 4 + 3, [](const TriggerDone& d) {
    return d.name + " " + d.node + " " + std::to_string(d.instance) + " " + d.file + " " + d.why;
  });
  // An event no node could turn into a notice does not decode.
  for (const TriggerEvent& invalid : {TriggerEvent{-1, "x", ""}, TriggerEvent{1, "a b", ""},
                                      TriggerEvent{TriggerNotice::kMaxTimeMs + 1, "", ""}}) {
    UdpMessage m;
    TriggerEvent e;
    Encode(invalid, &m);
    EXPECT_FALSE(Decode(m.body(), &e)) << invalid.label;
  }
}

}  // namespace
}  // namespace kelo
