#include "tools/kelo_bag/lcm_bus.h"

#include <stdlib.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/kelo_bag/bus_recording.h"
#include "tools/kelo_bag/lcm_message_type.h"

namespace kelo {
namespace cli {
namespace {

TEST(LcmBusUrlTest, AsksForALargeReceiveBufferAndSaysWhenTheKernelCapsIt) {
  unsetenv("LCM_DEFAULT_URL");
  EXPECT_EQ("udpm://239.255.76.67:7667?ttl=0&recv_buf_size=4194304", BusUrl(""));
  EXPECT_EQ("udpm://239.255.1.2:7000?recv_buf_size=4194304", BusUrl("udpm://239.255.1.2:7000"));
  EXPECT_EQ("udpm://239.255.1.2:7000?ttl=0&recv_buf_size=100",
            BusUrl("udpm://239.255.1.2:7000?ttl=0&recv_buf_size=100"));
  EXPECT_EQ("memq://", BusUrl("memq://"));
  EXPECT_EQ("udpm://239.255.76.67:7667?ttl=0", BusUrl("", 0));
  setenv("LCM_DEFAULT_URL", "udpm://239.255.9.9:7777?ttl=0", 1);
  EXPECT_EQ("udpm://239.255.9.9:7777?ttl=0&recv_buf_size=8", BusUrl("", 8));
  unsetenv("LCM_DEFAULT_URL");

  // A kernel that caps the buffer below what the URL asks is named, with the way to raise it.
  const std::string url = "udpm://239.255.76.67:7667?recv_buf_size=4194304&ttl=0";
  EXPECT_EQ(4194304, ReceiveBufferOf(url));
  EXPECT_THAT(ReceiveBufferCapNotice(url, 212992),
              testing::AllOf(testing::HasSubstr("212992"), testing::HasSubstr("sysctl -w net.core.rmem_max=4194304")));
  EXPECT_EQ("", ReceiveBufferCapNotice(url, 4194304));
  EXPECT_EQ("", ReceiveBufferCapNotice(url, -1));  // limit unknown
  EXPECT_EQ("", ReceiveBufferCapNotice("udpm://239.255.76.67:7667?ttl=0", 1));
  EXPECT_EQ(0, ReceiveBufferOf("memq://"));
}

TEST(LcmBusTest, CountsTheKernelDropsOfItsOwnSocketsOnTheBusPort) {
  const std::string table =
      "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref "
      "pointer drops\n"
      "  1: 434CFFEF:1DF3 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 501 2 0 17\n"
      "  2: 00000000:1DF3 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 502 2 0 5\n"
      "  3: 00000000:1DF3 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 999 2 0 100\n"
      "  4: 00000000:1DF4 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 503 2 0 1000\n"
      "  5: garbage\n";
  EXPECT_EQ(22u, UdpDrops(table, {501, 502, 503}, 7667));
  EXPECT_EQ(0u, UdpDrops(table, {}, 7667));
  EXPECT_EQ(1000u, UdpDrops(table, {503}, 7668));
  // A real bus whose socket is not read while it floods: the kernel drops, the bus counts.
  std::string error;
  std::unique_ptr<LcmBus> bus = LcmBus::Open(BusUrl("", 65536), &error);
  ASSERT_NE(nullptr, bus) << error;
  bus->Subscribe({"/flood"}, [](const LcmBus::Message&) {});
  for (int i = 0; i < 200 && bus->KernelDrops() == 0; ++i) bus->Publish("/flood", std::string(60000, 'f'));
  EXPECT_GT(bus->KernelDrops(), 0u);
}

TEST(LcmMessageTypeTest, AChannelOfChangingFirstBytesIsFiledAsRawAfterAFewTypes) {
  LcmTypeNamer namer;
  std::set<std::string> raw_types, typed;
  for (uint64_t i = 0; i < 1000; ++i) {
    const std::string payload(reinterpret_cast<const char*>(&i), 8);
    raw_types.insert(namer.TypeOf("/raw", payload.data(), payload.size()));
    typed.insert(namer.TypeOf(
        "/typed", i % 2 ? "\x12\x34\xab\xcd\x56\x78\xef\x00" : "\x00\x00\x00\x00\x00\x00\x00\x01", 8));
  }
  EXPECT_EQ(LcmTypeNamer::kMaxFingerprints + 1, raw_types.size());
  EXPECT_EQ(1u, raw_types.count(kRawLcmMessageType));
  EXPECT_EQ((std::set<std::string>{"lcm:0x0000000000000001", "lcm:0x1234abcd5678ef00"}), typed);
  EXPECT_EQ(kShortLcmMessageType, namer.TypeOf("/typed", "\x12\x34\xab\xcd\x56\x78\xef", 7));
  EXPECT_EQ(kRawLcmMessageType, namer.TypeOf("/raw", "\x12\x34\xab\xcd\x56\x78\xef\x00", 8)) << "for good";

  // LCM's receive time is in microseconds; the bag keeps milliseconds.
  const BagRecordWriter::Message m = RecordedMessage("/cam", 1700000000123999, "T", "data", 4, 42);
  EXPECT_EQ(1700000000123, m.time);
  EXPECT_EQ(42, m.record_time);
}

using Messages = std::vector<std::pair<std::string, std::string>>;

// What arrives of `sent` on the in-process provider (real LCM dispatching, no network).
Messages Deliver(const std::vector<std::string>& channels, const Messages& sent) {
  std::string error;
  std::unique_ptr<LcmBus> bus = LcmBus::Open("memq://", &error);
  EXPECT_NE(nullptr, bus) << error;
  Messages got;
  bus->Subscribe(channels, [&](const LcmBus::Message& m) {
    got.emplace_back(m.channel, std::string(static_cast<const char*>(m.data), m.size));
  });
  for (const auto& message : sent) EXPECT_TRUE(bus->Publish(message.first, message.second));
  while (bus->Handle(0) > 0) continue;
  return got;
}

// With no channel named every channel but LCM's self test arrives, bytes intact; named
// channels, the self test too, are taken literally, not as patterns.
TEST(LcmBusTest, DeliversEveryChannelButLcmsSelfTestOrTheNamedOnesLiterally) {
  const Messages sent = {{"/a", std::string("\0\x01\xff", 3)}, {"LCM_SELF_TEST", "self test"}, {"a.b", "1"},
                         {"aXb", "2"}, {"/x+", "3"}, {"/xx", "4"}, {"/a", std::string(100000, 'x')}};
  Messages all = sent;
  all.erase(all.begin() + 1);
  EXPECT_EQ(all, Deliver({}, sent));
  EXPECT_EQ((Messages{sent[1], sent[2], sent[4]}), Deliver({"a.b", "/x+", "LCM_SELF_TEST"}, sent));
}

}  // namespace
}  // namespace cli
}  // namespace kelo
