#include "platform/udp/udp_frame.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platform/udp/udp_message.h"
#include "platform/udp/udp_reassembler.h"
#include "tests/support/bag_files.h"

namespace kelo {
namespace {

using testing_support::Noise;

std::vector<std::string> Frames(uint32_t id, const std::string& key, const std::string& body,
                                size_t max_datagram = 1472, uint32_t sender = 7, uint32_t reply_to = 0) {
  std::vector<std::string> d;
  EXPECT_TRUE(EncodeUdpFrames(sender, id, reply_to, key, body, max_datagram, &d));
  return d;
}

void Put(std::string* d, size_t at, int width, uint32_t v) {
  for (int i = 0; i < width; ++i) (*d)[at + i] = static_cast<char>((v >> (8 * i)) & 0xff);
}

UdpFrameStatus Parse(const std::string& d, size_t size = std::string::npos) {
  UdpFrame frame;
  return ParseUdpFrame(d.data(), std::min(size, d.size()), &frame);
}

// Catches wrong fragment counts, chunk boundaries off by one and an empty body refused.
TEST(UdpFrameTest, BodiesAroundTheDatagramLimitSplitIntoFullDatagramsAndComeBackWhole) {
  for (size_t max_datagram : {kUdpMinDatagramBytes, size_t{1472}, kUdpMaxDatagramBytes}) {
    const size_t cap = max_datagram - kUdpFrameHeaderBytes - 3;
    for (size_t size : {size_t{0}, size_t{1}, cap - 1, cap, cap + 1, 2 * cap, 2 * cap + 1, size_t{150000}}) {
      const std::string body = Noise(size, static_cast<unsigned>(size));
      const std::vector<std::string> datagrams = Frames(9, "key", body, max_datagram);
      ASSERT_EQ(datagrams.size(), size == 0 ? 1 : (size + cap - 1) / cap) << size << " in " << max_datagram;
      std::string joined;
      for (const std::string& d : datagrams) {
        UdpFrame f;
        ASSERT_LE(d.size(), max_datagram);
        ASSERT_EQ(ParseUdpFrame(d.data(), d.size(), &f), UdpFrameStatus::kOk);
        EXPECT_EQ(f.key, "key");
        joined.append(f.payload);
      }
      EXPECT_EQ(joined, body) << size;
    }
  }
  std::vector<std::string> out;  // what cannot be framed
  EXPECT_FALSE(EncodeUdpFrames(1, 1, 0, std::string(kUdpMaxKeyBytes + 1, 'k'), "b", 65507, &out));
  EXPECT_FALSE(EncodeUdpFrames(1, 1, 0, "k", std::string(kUdpMaxBodyBytes + 1, 'b'), 65507, &out));
  EXPECT_FALSE(EncodeUdpFrames(1, 1, 0, "key", "b", kUdpFrameHeaderBytes + 3, &out));
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(EncodeUdpFrames(1, 1, 0, "k", std::string(kUdpMaxBodyBytes, 'b'), kUdpMinDatagramBytes, &out));
}

// Catches reads past a short datagram and header fields trusted against its real size.
TEST(UdpFrameTest, TruncatedForeignAndContradictoryDatagramsAreToldApart) {
  for (const std::string& d :
       {Frames(1, "key", "body")[0], Frames(1, "", "")[0], Frames(1, "k", Noise(3000, 1))[1]}) {
    for (size_t cut = 0; cut < d.size(); ++cut) EXPECT_NE(Parse(d, cut), UdpFrameStatus::kOk) << cut;
    EXPECT_EQ(Parse(d), UdpFrameStatus::kOk);
    EXPECT_NE(Parse(d + "x"), UdpFrameStatus::kOk);
  }
  // Five bytes of a frame whose sixth, outside it, would be a bad flag.
  EXPECT_EQ(Parse(std::string("KCST\x01\x01", 6), 5), UdpFrameStatus::kMalformed);
  const std::string valid = Frames(1, "key", Noise(3000, 2))[0];  // fragment 0 of 3
  const UdpFrameStatus kMagic = UdpFrameStatus::kBadMagic, kVersion = UdpFrameStatus::kBadVersion,
                       kBad = UdpFrameStatus::kMalformed;
  // Field offsets: 0 magic, 4 version, 5 flags, 6 key size, 20 body size, 24 index, 26 count.
  // clang-format off
  for (auto [at, value, status] : std::vector<std::tuple<size_t, uint32_t, UdpFrameStatus>>{
           {0, 'k', kMagic}, {3, 't', kMagic}, {4, 0, kVersion}, {4, 2, kVersion}, {5, 1, kVersion},
           {6, 0xffff, kBad}, {6, kUdpMaxKeyBytes + 1, kBad}, {20, 0xffffffffu, kBad}, {20, 9u << 20, kBad},
           {20, 2, kBad}, {20, 3001, kBad}, {26, 0, kBad}, {24, 3, kBad}, {24, 0xffff, kBad}, {26, 2, kBad},
           {26, 0xffff, kBad}}) {
    // clang-format on
    std::string d = valid;
    Put(&d, at, at < 6 ? 1 : at == 20 ? 4 : 2, value);
    EXPECT_EQ(Parse(d), status) << at << "=" << value;
  }
  std::string empty = Frames(1, "key", "")[0];  // an empty body is one fragment
  Put(&empty, 26, 2, 2);
  EXPECT_EQ(Parse(empty), kBad);
}

// Catches a read that takes a stream cut short or moves its cursor when it fails. (A write of
// another width: every message the trigger and monitor tests exchange.)
TEST(MemoryStreamTest, EveryReadRefusesAStreamCutShortAndTakesAWholeOne) {
  const std::vector<std::pair<size_t, std::function<bool(MemoryStream*)>>> reads = {
      {1, [](MemoryStream* s) { uint8_t v; return s->read_uint8(&v); }},
      {2, [](MemoryStream* s) { uint16_t v; return s->read_uint16(&v); }},
      {4, [](MemoryStream* s) { uint32_t v; return s->read_uint32(&v); }},
      {4, [](MemoryStream* s) { int32_t v; return s->read_int32(&v); }},
      {8, [](MemoryStream* s) { uint64_t v; return s->read_uint64(&v); }},
      {8, [](MemoryStream* s) { int64_t v; return s->read_int64(&v); }},
      {8, [](MemoryStream* s) { double v; return s->read_double(&v); }},
      {7, [](MemoryStream* s) { std::string v; return s->read_string(&v); }},  // "abc" after its length
      {5, [](MemoryStream* s) { std::string v; return s->read_bytes(5, &v); }}};
  for (const auto& [width, read] : reads) {
    const std::string whole = std::string("\x03\0\0\0abc\0", 8).substr(0, width);
    for (size_t cut = 0; cut < width; ++cut) {
      MemoryStream in(whole.substr(0, cut));
      EXPECT_FALSE(read(&in)) << width << " cut to " << cut;
      EXPECT_EQ(in.read_position(), 0u);
    }
    MemoryStream in(whole);
    EXPECT_TRUE(read(&in)) << width;
    EXPECT_EQ(in.remaining(), 0u) << width;
  }
}

class UdpReassemblerTest : public testing::Test {
 protected:
  bool Add(UdpReassembler* r, const std::string& d, int64_t now = 0, uint16_t port = 2) {
    return r->Add(1, port, d.data(), d.size(), now, &message_);
  }
  UdpMessage message_;
};

// Catches fragments placed by arrival order, senders behind one port mixed, reply ids lost.
TEST_F(UdpReassemblerTest, FragmentsInAnyOrderAndInterleavedAcrossSendersComeBackWhole) {
  const std::string a = Noise(10000, 3), b = Noise(7777, 4);
  std::vector<std::string> fa = Frames(5, "a", a, 1472, 1, 9), fb = Frames(5, "b", b, 1472, 2);
  std::reverse(fa.begin(), fa.end());
  std::shuffle(fb.begin(), fb.end(), std::mt19937(5));
  UdpReassembler r;
  std::vector<UdpMessage> done;
  for (size_t i = 0; i < fa.size(); ++i) {
    if (Add(&r, fa[i])) done.push_back(message_);
    if (i < fb.size() && Add(&r, fb[i])) done.push_back(message_);
  }
  ASSERT_EQ(done.size(), 2u);
  for (const UdpMessage& m : done) {
    EXPECT_EQ(m.body(), m.key() == "a" ? a : b);
    EXPECT_EQ(m.id(), 5u);
    EXPECT_EQ(m.reply_to(), m.key() == "a" ? 9u : 0u);
  }
}

// Catches a message delivered twice, and fragments of another key, reply or split merged in.
TEST_F(UdpReassemblerTest, RepeatedOrMismatchedFragmentsAreDroppedAndCounted) {
  UdpReassembler r;
  const std::string body = Noise(3000, 6);
  std::vector<std::string> f = Frames(1, "k", body);  // 3 fragments
  for (const std::string& d : {f[0], f[0], Frames(1, "x", body)[1], Frames(1, "k", body, 1472, 7, 5)[1],
                               Frames(1, "k", body + "!")[1], Frames(1, "k", body, 1000)[1], f[1], f[1],
                               f[2].substr(0, 12)})
    EXPECT_FALSE(Add(&r, d));
  ASSERT_TRUE(Add(&r, f[2]));
  EXPECT_EQ(message_.body(), body);
  for (const std::string& d : f) EXPECT_FALSE(Add(&r, d));
  EXPECT_TRUE(Add(&r, f[0] = Frames(2, "k", "one")[0]));
  EXPECT_FALSE(Add(&r, f[0]));
  EXPECT_TRUE(Add(&r, f[0], 0, 3));
  EXPECT_EQ(r.stats().duplicate_datagrams, 6u);
  EXPECT_EQ(r.stats().malformed_datagrams, 5u);
}

// Catches stale fragments kept for ever (also by a server that never calls Expire), and the timeout
// counted from the first fragment.
TEST_F(UdpReassemblerTest, APartialMessageIsAbandonedOnlyAfterTheTimeoutSinceItsLastFragment) {
  UdpReassemblyLimits limits;
  limits.timeout_ms = 1000;
  UdpReassembler r(limits);
  const std::vector<std::string> f = Frames(1, "k", Noise(5000, 8));  // 4 fragments
  ASSERT_FALSE(Add(&r, f[0], 0));
  ASSERT_FALSE(Add(&r, f[1], 900));
  r.Expire(1899);
  EXPECT_EQ(r.stats().pending_messages, 1u);
  ASSERT_FALSE(Add(&r, f[2], 1899));
  ASSERT_FALSE(Add(&r, "not a frame", 2899));  // whatever arrives expires what went stale
  EXPECT_EQ(r.stats().pending_bytes + r.stats().pending_messages, 0u);
  EXPECT_EQ(r.stats().dropped_messages, 1u);
  EXPECT_FALSE(Add(&r, f[3], 2900));
}

// Catches memory growing past the limits under first fragments that never complete.
TEST_F(UdpReassemblerTest, MemoryStaysWithinTheLimitsWhateverArrivesAndNewMessagesStillComplete) {
  UdpReassemblyLimits limits;
  limits.max_pending_bytes = 256 << 10;
  limits.max_pending_messages = 16;
  UdpReassembler r(limits);
  std::string big = Frames(1, "k", std::string(kUdpMaxBodyBytes, 'x'), kUdpMaxDatagramBytes)[0];
  std::string small = Frames(1, "k", Noise(2000, 11))[0];
  for (uint32_t id = 1; id <= 300; ++id) {
    std::string& d = id <= 200 ? big : small;
    Put(&d, 12, 4, id);
    ASSERT_FALSE(Add(&r, d, id));
    ASSERT_LE(r.stats().pending_bytes, limits.max_pending_bytes);
    ASSERT_LE(r.stats().pending_messages, limits.max_pending_messages);
  }
  // A newcomer evicts the oldest, whether the count (3000 bytes) or the bytes are short.
  for (const std::string& body : {Noise(3000, 9), Noise(100000, 9)}) {
    bool complete = false;
    for (const std::string& d : Frames(5000 + body.size(), "k", body)) complete = Add(&r, d, 400);
    ASSERT_TRUE(complete) << body.size();
    EXPECT_EQ(message_.body(), body);
  }
  // Completed messages are kept in mind to refuse repeats up to their own limit, the oldest
  // forgotten first.
  limits.remembered_messages = 4;
  UdpReassembler memory(limits);
  std::vector<std::string> ones;
  for (uint32_t id = 1; id <= 5; ++id) ones.push_back(Frames(id, "k", "one")[0]);
  for (const std::string& d : ones) ASSERT_TRUE(Add(&memory, d));
  EXPECT_FALSE(Add(&memory, ones[4]));
  EXPECT_TRUE(Add(&memory, ones[0]));
}

}  // namespace
}  // namespace kelo
