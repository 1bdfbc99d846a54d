#include "platform/udp/udp_frame.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/udp/udp_reassembler.h"

namespace kelo {
namespace {

std::vector<std::string> Frames(uint32_t id, const std::string& key, const std::string& body,
                                size_t max_datagram = 1472, uint32_t sender = 7, uint32_t reply_to = 0) {
  std::vector<std::string> datagrams;
  EXPECT_TRUE(EncodeUdpFrames(sender, id, reply_to, key, body, max_datagram, &datagrams));
  return datagrams;
}

std::string Pattern(size_t size, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(size, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

void Put16(std::string* d, size_t at, uint16_t v) {
  (*d)[at] = static_cast<char>(v & 0xff);
  (*d)[at + 1] = static_cast<char>(v >> 8);
}

void Put32(std::string* d, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*d)[at + i] = static_cast<char>((v >> (8 * i)) & 0xff);
}

UdpFrameStatus Parse(const std::string& d) {
  UdpFrame frame;
  return ParseUdpFrame(d.data(), d.size(), &frame);
}

TEST(UdpFrameTest, BodiesAroundTheDatagramLimitSplitIntoFullDatagramsAndComeBackWhole) {
  for (size_t max_datagram : {kUdpMinDatagramBytes, size_t{1472}, kUdpMaxDatagramBytes}) {
    const std::string key = "monitor";
    const size_t cap = max_datagram - kUdpFrameHeaderBytes - key.size();
    for (size_t size :
         {size_t{0}, size_t{1}, cap - 1, cap, cap + 1, 2 * cap - 1, 2 * cap, 2 * cap + 1, size_t{150000}}) {
      const std::string body = Pattern(size, static_cast<uint32_t>(size));
      const std::vector<std::string> datagrams = Frames(9, key, body, max_datagram);
      const size_t expected = size == 0 ? 1 : (size + cap - 1) / cap;
      ASSERT_EQ(datagrams.size(), expected) << "size " << size << " datagram " << max_datagram;
      std::string joined;
      for (size_t i = 0; i < datagrams.size(); ++i) {
        ASSERT_LE(datagrams[i].size(), max_datagram);
        UdpFrame frame;
        ASSERT_EQ(ParseUdpFrame(datagrams[i].data(), datagrams[i].size(), &frame), UdpFrameStatus::kOk);
        EXPECT_EQ(frame.key, key);
        EXPECT_EQ(frame.fragment_index, i);
        EXPECT_EQ(frame.fragment_count, datagrams.size());
        EXPECT_EQ(frame.body_size, size);
        joined.append(frame.payload);
      }
      EXPECT_EQ(joined, body) << "size " << size;
    }
  }
}

TEST(UdpFrameTest, RefusesWhatCannotBeFramed) {
  std::vector<std::string> out;
  EXPECT_FALSE(EncodeUdpFrames(1, 1, 0, std::string(kUdpMaxKeyBytes + 1, 'k'), "b", 65507, &out));
  EXPECT_FALSE(EncodeUdpFrames(1, 1, 0, "k", std::string(kUdpMaxBodyBytes + 1, 'b'), 65507, &out));
  EXPECT_FALSE(EncodeUdpFrames(1, 1, 0, "key", "b", kUdpFrameHeaderBytes + 3, &out));
  EXPECT_TRUE(out.empty());
  // The largest body fits even in the smallest datagram.
  EXPECT_TRUE(EncodeUdpFrames(1, 1, 0, "k", std::string(kUdpMaxBodyBytes, 'b'), kUdpMinDatagramBytes, &out));
}

TEST(UdpFrameTest, EveryTruncationOfAValidDatagramIsRejected) {
  for (const std::string& d :
       {Frames(1, "key", "body")[0], Frames(1, "", "")[0], Frames(1, "k", Pattern(3000, 1))[1]}) {
    for (size_t cut = 0; cut < d.size(); ++cut) {
      EXPECT_NE(Parse(d.substr(0, cut)), UdpFrameStatus::kOk) << cut;
    }
    EXPECT_EQ(Parse(d), UdpFrameStatus::kOk);
    EXPECT_NE(Parse(d + "x"), UdpFrameStatus::kOk);
  }
}

TEST(UdpFrameTest, ForeignMagicAndOtherVersionsAreToldApartFromMalformedFrames) {
  const std::string valid = Frames(1, "key", "body")[0];
  for (size_t i = 0; i < 4; ++i) {
    std::string d = valid;
    d[i] ^= 0x20;
    EXPECT_EQ(Parse(d), UdpFrameStatus::kBadMagic);
  }
  for (int version : {0, 2, 255}) {
    std::string d = valid;
    d[4] = static_cast<char>(version);
    EXPECT_EQ(Parse(d), UdpFrameStatus::kBadVersion);
  }
  std::string flagged = valid;
  flagged[5] = 1;
  EXPECT_EQ(Parse(flagged), UdpFrameStatus::kBadVersion);
}

TEST(UdpFrameTest, HeaderFieldsThatContradictTheDatagramAreMalformed) {
  const std::string two = Frames(1, "key", Pattern(3000, 2))[0];  // fragment 0 of 3
  struct Case {
    const char* what;
    size_t at;
    int width;
    uint32_t value;
  };
  const std::vector<Case> cases = {
      {"key longer than the datagram", 6, 2, 0xffff},
      {"key longer than allowed", 6, 2, kUdpMaxKeyBytes + 1},
      {"body beyond the limit", 20, 4, 0xffffffffu},
      {"body of 9 MiB", 20, 4, 9u << 20},
      {"body smaller than claimed fragments", 20, 4, 2},
      {"body size that changes the chunk", 20, 4, 3001},
      {"no fragments", 26, 2, 0},
      {"index past the count", 24, 2, 3},
      {"index far past the count", 24, 2, 0xffff},
      {"count that changes the chunk", 26, 2, 2},
      {"count larger than the body", 26, 2, 0xffff},
  };
  for (const Case& c : cases) {
    std::string d = two;
    if (c.width == 2)
      Put16(&d, c.at, static_cast<uint16_t>(c.value));
    else
      Put32(&d, c.at, c.value);
    EXPECT_EQ(Parse(d), UdpFrameStatus::kMalformed) << c.what;
  }
  // An empty body is one empty fragment, nothing else.
  std::string empty = Frames(1, "key", "")[0];
  Put16(&empty, 26, 2);
  EXPECT_EQ(Parse(empty), UdpFrameStatus::kMalformed);
}

class UdpReassemblerTest : public testing::Test {
 protected:
  bool Add(UdpReassembler* r, const std::string& d, int64_t now = 0, uint32_t address = 1,
           uint16_t port = 2) {
    return r->Add(address, port, d.data(), d.size(), now, &message_);
  }
  UdpMessage message_;
};

TEST_F(UdpReassemblerTest, FragmentsInAnyOrderAndInterleavedAcrossSendersComeBackWhole) {
  const std::string a = Pattern(10000, 3), b = Pattern(7777, 4);
  // Two senders behind one address and port, using the same message id.
  std::vector<std::string> fa = Frames(5, "a", a, 1472, /*sender=*/1, /*reply_to=*/9);
  std::vector<std::string> fb = Frames(5, "b", b, 1472, /*sender=*/2);
  std::reverse(fa.begin(), fa.end());
  std::mt19937 rng(5);
  std::shuffle(fb.begin(), fb.end(), rng);
  UdpReassembler r;
  std::vector<UdpMessage> done;
  for (size_t i = 0; i < std::max(fa.size(), fb.size()); ++i) {
    if (i < fa.size() && Add(&r, fa[i])) done.push_back(message_);
    if (i < fb.size() && Add(&r, fb[i])) done.push_back(message_);
  }
  ASSERT_EQ(done.size(), 2u);
  for (const UdpMessage& m : done) {
    EXPECT_EQ(m.body(), m.key() == "a" ? a : b);
    EXPECT_EQ(m.id(), 5u);
    EXPECT_EQ(m.reply_to(), m.key() == "a" ? 9u : 0u);
  }
  EXPECT_EQ(r.stats().completed_messages, 2u);
  EXPECT_EQ(r.stats().dropped_datagrams, 0u);
  EXPECT_EQ(r.stats().pending_bytes, 0u);
}

TEST_F(UdpReassemblerTest, RepeatedFragmentsAndRepeatedMessagesAreDroppedAndCounted) {
  UdpReassembler r;
  const std::vector<std::string> f = Frames(1, "k", Pattern(4000, 6));  // 3 fragments
  EXPECT_FALSE(Add(&r, f[0]));
  EXPECT_FALSE(Add(&r, f[0]));
  EXPECT_FALSE(Add(&r, f[1]));
  EXPECT_FALSE(Add(&r, f[1]));
  EXPECT_TRUE(Add(&r, f[2]));
  // Late copies of a completed message, whole or in part, are not delivered again.
  for (const std::string& d : f) EXPECT_FALSE(Add(&r, d));
  const std::string single = Frames(2, "k", "one")[0];
  EXPECT_TRUE(Add(&r, single));
  EXPECT_FALSE(Add(&r, single));
  // The same id from another port is another sender's message.
  EXPECT_TRUE(Add(&r, single, 0, 1, 3));

  const UdpCastStats s = r.stats();
  EXPECT_EQ(s.duplicate_datagrams, 6u);
  EXPECT_EQ(s.dropped_datagrams, 6u);
  EXPECT_EQ(s.completed_messages, 3u);
  EXPECT_EQ(s.pending_messages, 0u);
}

TEST_F(UdpReassemblerTest, AFragmentAtOddsWithItsMessageIsMalformed) {
  UdpReassembler r;
  const std::string body = Pattern(3000, 7);
  const std::vector<std::string> f = Frames(1, "k", body);
  ASSERT_FALSE(Add(&r, f[0]));
  // Same sender and id, but another key, another reply, or another body split.
  const std::vector<std::string> others = {Frames(1, "x", body)[1], Frames(1, "k", body, 1472, 7, 5)[1],
                                           Frames(1, "k", body + "!")[1], Frames(1, "k", body, 1000)[1]};
  for (const std::string& d : others) EXPECT_FALSE(Add(&r, d));
  EXPECT_EQ(r.stats().malformed_datagrams, others.size());
  // The message itself is unharmed.
  EXPECT_FALSE(Add(&r, f[1]));
  ASSERT_TRUE(Add(&r, f[2]));
  EXPECT_EQ(message_.body(), body);
}

TEST_F(UdpReassemblerTest, APartialMessageIsAbandonedOnlyAfterTheTimeoutSinceItsLastFragment) {
  UdpReassemblyLimits limits;
  limits.timeout_ms = 1000;
  UdpReassembler r(limits);
  const std::vector<std::string> f = Frames(1, "k", Pattern(5000, 8));  // 4 fragments
  ASSERT_FALSE(Add(&r, f[0], 0));
  ASSERT_FALSE(Add(&r, f[1], 900));
  r.Expire(1899);  // 999 ms after the last fragment
  EXPECT_EQ(r.stats().pending_messages, 1u);
  ASSERT_FALSE(Add(&r, f[2], 1899));
  r.Expire(2899);
  EXPECT_EQ(r.stats().pending_messages, 0u);
  EXPECT_EQ(r.stats().pending_bytes, 0u);
  EXPECT_EQ(r.stats().dropped_messages, 1u);
  // The last fragment alone, arriving too late, completes nothing.
  EXPECT_FALSE(Add(&r, f[3], 2900));
  EXPECT_EQ(r.stats().completed_messages, 0u);
}

TEST_F(UdpReassemblerTest, MemoryStaysWithinTheLimitsWhateverArrivesAndNewMessagesStillComplete) {
  UdpReassemblyLimits limits;
  limits.max_pending_bytes = 256 << 10;
  limits.max_pending_messages = 16;
  UdpReassembler r(limits);
  // First fragments of 200 messages that each claim 8 MiB, 64 KB apiece.
  std::string first = Frames(1, "k", std::string(kUdpMaxBodyBytes, 'x'), kUdpMaxDatagramBytes)[0];
  for (uint32_t id = 1; id <= 200; ++id) {
    Put32(&first, 12, id);  // the message id
    EXPECT_FALSE(Add(&r, first, id));
    const UdpCastStats s = r.stats();
    ASSERT_LE(s.pending_bytes, limits.max_pending_bytes);
    ASSERT_LE(s.pending_messages, limits.max_pending_messages);
  }
  EXPECT_GE(r.stats().dropped_messages, 190u);
  // Many small partial messages hit the count limit instead.
  std::string small = Frames(1, "k", Pattern(2000, 11))[0];
  for (uint32_t id = 1000; id < 1100; ++id) {
    Put32(&small, 12, id);
    EXPECT_FALSE(Add(&r, small, 300));
    ASSERT_LE(r.stats().pending_messages, limits.max_pending_messages);
  }
  const std::string body = Pattern(100000, 9);
  bool complete = false;
  for (const std::string& d : Frames(5000, "k", body, kUdpMaxDatagramBytes)) complete = Add(&r, d, 400);
  ASSERT_TRUE(complete);
  EXPECT_EQ(message_.body(), body);
}

TEST_F(UdpReassemblerTest, RandomDatagramsAreAllDroppedAndCounted) {
  UdpReassembler r;
  std::mt19937 rng(10);
  const int kDatagrams = 5000;
  for (int i = 0; i < kDatagrams; ++i) {
    std::string d = Pattern(rng() % 200, rng());
    // Half of them wear the right magic and version, to reach the deeper checks.
    if (i % 2 == 0 && d.size() >= 6) d.replace(0, 6, std::string("KCST\x01\x00", 6));
    EXPECT_FALSE(Add(&r, d, i)) << i;
  }
  const UdpCastStats s = r.stats();
  EXPECT_EQ(s.received_datagrams, static_cast<uint64_t>(kDatagrams));
  EXPECT_EQ(s.dropped_datagrams, static_cast<uint64_t>(kDatagrams));
  EXPECT_EQ(s.dropped_datagrams,
            s.foreign_datagrams + s.bad_version_datagrams + s.malformed_datagrams + s.duplicate_datagrams);
  EXPECT_GT(s.malformed_datagrams, 0u);
  EXPECT_EQ(s.pending_bytes, 0u);
}

}  // namespace
}  // namespace kelo
