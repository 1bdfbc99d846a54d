#include "platform/udp/memory_stream.h"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/udp/udp_message.h"

namespace kelo {
namespace {

// Catches truncated widths, sign loss and a byte order other than little-endian.
TEST(MemoryStreamTest, IntegersAndDoublesRoundTripLittleEndian) {
  MemoryStream out;
  out.write_uint32(0x04030201u);
  out.write_uint16(0x0605);
  EXPECT_EQ(out.data(), std::string("\x01\x02\x03\x04\x05\x06", 6));
  const std::vector<int64_t> values = {0,
                                       1,
                                       -1,
                                       0xff,
                                       0x10000,
                                       std::numeric_limits<int32_t>::min(),
                                       std::numeric_limits<int64_t>::min(),
                                       std::numeric_limits<int64_t>::max()};
  for (int64_t v : values) {
    out.write_uint8(static_cast<uint8_t>(v));
    out.write_uint64(static_cast<uint64_t>(v));
    out.write_int32(static_cast<int32_t>(v));
    out.write_int64(v);
    out.write_double(static_cast<double>(v) / 3.0);
  }
  MemoryStream in(out.data());
  uint32_t u32;
  uint16_t u16;
  ASSERT_TRUE(in.read_uint32(&u32) && in.read_uint16(&u16));
  for (int64_t v : values) {
    uint8_t a;
    uint64_t b;
    int32_t c;
    int64_t d;
    double e;
    ASSERT_TRUE(in.read_uint8(&a) && in.read_uint64(&b) && in.read_int32(&c) && in.read_int64(&d) &&
                in.read_double(&e));
    EXPECT_EQ(a, static_cast<uint8_t>(v));
    EXPECT_EQ(b, static_cast<uint64_t>(v));
    EXPECT_EQ(c, static_cast<int32_t>(v));
    EXPECT_EQ(d, v);
    EXPECT_EQ(e, static_cast<double>(v) / 3.0);
  }
  EXPECT_EQ(in.remaining(), 0u);
}

// Catches strings cut at NULs or at 64 KiB, and reads that move or write on short data.
TEST(MemoryStreamTest, StringsKeepEveryByteAndShortDataFailsWithoutMovingTheCursor) {
  MemoryStream out;
  for (const std::string& v : {std::string(), std::string("\0\0\xff", 3), std::string(70000, 'x')})
    ASSERT_TRUE(out.write_string(v));
  MemoryStream in(out.data());
  for (const std::string& v : {std::string(), std::string("\0\0\xff", 3), std::string(70000, 'x')}) {
    std::string read;
    ASSERT_TRUE(in.read_string(&read));
    EXPECT_EQ(read, v);
  }
  MemoryStream full;
  full.write_string("hello");
  std::vector<std::string> inputs = {std::string("\xff\xff\xff\xff", 4) + "abc",
                                     std::string("\0\0\0\x80", 4)};
  for (size_t cut = 0; cut < full.size(); ++cut) inputs.push_back(full.data().substr(0, cut));
  for (const std::string& input : inputs) {
    MemoryStream short_in(input);
    std::string s = "kept", raw;
    uint64_t wide = 7;
    EXPECT_FALSE(short_in.read_string(&s)) << input.size();
    EXPECT_EQ(s, "kept");
    EXPECT_EQ(input.size() >= 8, short_in.read_uint64(&wide));
    if (input.size() < 8) EXPECT_EQ(wide, 7u);
    EXPECT_FALSE(short_in.read_bytes(input.size() + 1, &raw));
  }
}

// Catches a reply that keeps the question's body or does not point back at its id.
TEST(UdpMessageTest, WriteStringAppendsAndAReplyAnswersItsQuery) {
  UdpMessage m("key", "raw");
  m.write_string("abc");
  EXPECT_EQ(m.body(), std::string("raw\x03\0\0\0abc", 10));
  UdpMessage reply = UdpMessage("ask", "question", 41, 0).create_recv("ask_recv");
  EXPECT_EQ(reply.key(), "ask_recv");
  EXPECT_TRUE(reply.body().empty());
  EXPECT_EQ(reply.reply_to(), 41u);
  EXPECT_EQ(UdpMessage("x").create_recv("y").reply_to(), 0u);
}

}  // namespace
}  // namespace kelo
