#include "platform/udp/memory_stream.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/udp/udp_message.h"

namespace kelo {
namespace {

// Every width round-trips at its extremes, little-endian on the wire; strings keep every
// byte and their boundaries.
TEST(MemoryStreamTest, WritesLittleEndianAndReadsEveryValueBack) {
  MemoryStream out;
  out.write_uint32(0x04030201u);
  out.write_uint16(0x0605);
  EXPECT_EQ(out.data(), std::string("\x01\x02\x03\x04\x05\x06", 6));
  const std::vector<uint64_t> u64 = {0, 0x80, 0xff, 0x100, 0xffff, 0x10000, 0xffffffffull,
                                     std::numeric_limits<uint64_t>::max()};
  const std::vector<int64_t> i64 = {-1, std::numeric_limits<int32_t>::min(), std::numeric_limits<int64_t>::min(),
                                    std::numeric_limits<int64_t>::max()};
  const std::vector<std::string> strings = {"", std::string("\0\0\xff", 3), std::string(70000, 'x')};
  for (uint64_t v : u64) {
    out.write_uint8(static_cast<uint8_t>(v));
    out.write_uint16(static_cast<uint16_t>(v));
    out.write_uint32(static_cast<uint32_t>(v));
    out.write_uint64(v);
  }
  for (int64_t v : i64) {
    out.write_int32(static_cast<int32_t>(v));
    out.write_int64(v);
    out.write_double(static_cast<double>(v) / 3.0);
  }
  for (const std::string& v : strings) ASSERT_TRUE(out.write_string(v));
  MemoryStream in(out.data());
  std::string skip;
  ASSERT_TRUE(in.read_bytes(6, &skip));
  for (uint64_t v : u64) {
    uint8_t a;
    uint16_t b;
    uint32_t c;
    uint64_t d;
    ASSERT_TRUE(in.read_uint8(&a) && in.read_uint16(&b) && in.read_uint32(&c) && in.read_uint64(&d));
    EXPECT_EQ(a, static_cast<uint8_t>(v));
    EXPECT_EQ(b, static_cast<uint16_t>(v));
    EXPECT_EQ(c, static_cast<uint32_t>(v));
    EXPECT_EQ(d, v);
  }
  for (int64_t v : i64) {
    int32_t a;
    int64_t b;
    double c;
    ASSERT_TRUE(in.read_int32(&a) && in.read_int64(&b) && in.read_double(&c));
    EXPECT_EQ(a, static_cast<int32_t>(v));
    EXPECT_EQ(b, v);
    EXPECT_EQ(c, static_cast<double>(v) / 3.0);
  }
  for (const std::string& v : strings) {
    std::string read;
    ASSERT_TRUE(in.read_string(&read));
    EXPECT_EQ(read, v);
  }
  EXPECT_EQ(in.remaining(), 0u);
}

TEST(MemoryStreamTest, ShortDataFailsEveryReadWithoutMovingTheCursor) {
  MemoryStream full;
  full.write_string("hello");
  // Every cut of a length-prefixed string, and lengths that claim far more than is there.
  std::vector<std::string> inputs = {std::string("\xff\xff\xff\xff", 4) + "abc", std::string("\x00\x00\x00\x80", 4)};
  for (size_t cut = 0; cut < full.size(); ++cut) inputs.push_back(full.data().substr(0, cut));
  for (const std::string& input : inputs) {
    MemoryStream in(input);
    std::string s = "kept";
    EXPECT_FALSE(in.read_string(&s)) << input.size();
    EXPECT_EQ(s, "kept");
    uint64_t wide = 7;
    EXPECT_EQ(in.read_uint64(&wide), input.size() >= 8);
    if (input.size() < 8) { EXPECT_EQ(wide, 7u); }
    EXPECT_FALSE(in.read_bytes(input.size() + 1, &s));
    EXPECT_EQ(in.read_position(), input.size() >= 8 ? 8u : 0u);
  }
}

TEST(UdpMessageTest, BodiesGrowByWritesAndAReplyAnswersItsQuery) {
  UdpMessage m("key", "raw");
  m.write_string("abc");
  EXPECT_EQ(m.body(), std::string("raw\x03\x00\x00\x00" "abc", 10));
  UdpMessage reply = UdpMessage("ask", "question body", 41, 0).create_recv("ask_recv");
  EXPECT_EQ(reply.key(), "ask_recv");
  EXPECT_TRUE(reply.body().empty());
  EXPECT_EQ(reply.reply_to(), 41u);
  EXPECT_EQ(UdpMessage("x").create_recv("y").reply_to(), 0u) << "a locally built message answers nothing";
}

}  // namespace
}  // namespace kelo
