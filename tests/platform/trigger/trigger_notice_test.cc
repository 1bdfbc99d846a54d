#include "platform/trigger/trigger_notice.h"

#include <functional>
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
    EXPECT_EQ(back.time_ms, notice.time_ms);
    EXPECT_EQ(back.label, notice.label);
  }
  const std::vector<std::string> bad = {
      "", "trigger", "trigger ", "trigger  1", "Trigger 1", "trigger 1 ", "trigger 1  a", "trigger 01",
      "trigger -1", "trigger +1", "trigger 1x", "trigger 0x10", "trigger 253402300800000",
      "trigger 99999999999999999999", "trigger 1 a b", "trigger 1 a/b", "trigger 1 a\tb",
      "trigger 1 " + std::string(65, 'l'), std::string("trigger 1 a\0b", 13), "trigger 1\n", " trigger 1",
      "xtrigger 1",
  };
  for (const std::string& text : bad) {
    TriggerNotice notice{42, "kept"};
    EXPECT_FALSE(TriggerNotice::Parse(text, &notice)) << text;
    EXPECT_EQ(notice.time_ms, 42);
    EXPECT_EQ(notice.label, "kept");
  }
  for (const char* label : {"a b", "../x", "a\\b", "\xc3\xa4", "a*"}) {
    EXPECT_FALSE(TriggerNotice::IsValidLabel(label)) << label;
    EXPECT_FALSE((TriggerNotice{1, label}.IsValid())) << label;
  }
  EXPECT_FALSE((TriggerNotice{-1, ""}.IsValid()));
  EXPECT_FALSE((TriggerNotice{TriggerNotice::kMaxTimeMs + 1, ""}.IsValid()));
}

// Bodies decode to what was encoded; without the (later) last field it is empty; any shorter cut fails.
TEST(TriggerProtocolTest, BodiesDecodeToWhatWasEncodedAndNeverFromAPartOfOne) {
  using namespace trigger_protocol;
  UdpMessage event, ack, done;
  Encode(TriggerEvent{1709647629000, "brake", "c0ffee"}, &event);
  Encode(TriggerAck{"bag_record", "node_7", 9, 1709647634000, "/rec", "too-many"}, &ack);
  Encode(TriggerDone{"bag_record", "node_7", 9, "/rec/a.kelobag", "why"}, &done);
  TriggerEvent e;
  TriggerAck a;
  TriggerDone d;
  const struct {
    const std::string body;
    size_t last;  // bytes of the last field
    std::function<bool(const std::string&)> decode;
    std::function<std::string()> fields;
  } bodies[] = {
      {event.body(), 4 + 6, [&](const std::string& b) { return Decode(b, &e); },
       [&] { return std::to_string(e.time_ms) + " " + e.label + " " + e.mac; }},
      {ack.body(), 4 + 8, [&](const std::string& b) { return Decode(b, &a); },
       [&] { return a.name + " " + a.node + " " + std::to_string(a.instance) + " " + std::to_string(a.due_ms) + " " +
                    a.directory + " " + a.refused; }},
      {done.body(), 4 + 3, [&](const std::string& b) { return Decode(b, &d); },
       [&] { return d.name + " " + d.node + " " + std::to_string(d.instance) + " " + d.file + " " + d.why; }}};
  const std::string full[] = {"1709647629000 brake c0ffee", "bag_record node_7 9 1709647634000 /rec too-many",
                              "bag_record node_7 9 /rec/a.kelobag why"};
  for (int i = 0; i < 3; ++i) {
    const auto& c = bodies[i];
    ASSERT_TRUE(c.decode(c.body + "more"));
    EXPECT_EQ(c.fields(), full[i]);
    ASSERT_TRUE(c.decode(c.body.substr(0, c.body.size() - c.last)));
    EXPECT_EQ(c.fields(), full[i].substr(0, full[i].rfind(' ') + 1));
    for (size_t cut = 0; cut < c.body.size(); ++cut) {
      EXPECT_EQ(cut >= c.body.size() - c.last, c.decode(c.body.substr(0, cut))) << i << " cut at " << cut;
    }
  }
  // An event no node could turn into a notice does not decode.
  for (const TriggerEvent& invalid : {TriggerEvent{-1, "x", ""}, TriggerEvent{1, "a b", ""},
                                      TriggerEvent{TriggerNotice::kMaxTimeMs + 1, "", ""}}) {
    UdpMessage m;
    Encode(invalid, &m);
    EXPECT_FALSE(Decode(m.body(), &e)) << invalid.label;
  }
}

}  // namespace
}  // namespace kelo
