#include "platform/trigger/trigger_key.h"

#include <cstdint>

namespace kelo {

namespace {

constexpr uint32_t kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

uint32_t Rotate(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

void Compress(uint32_t state[8], const unsigned char* block) {
  uint32_t w[64];
  for (int i = 0; i < 16; ++i) {
    w[i] = static_cast<uint32_t>(block[4 * i]) << 24 | static_cast<uint32_t>(block[4 * i + 1]) << 16 |
           static_cast<uint32_t>(block[4 * i + 2]) << 8 | block[4 * i + 3];
  }
  for (int i = 16; i < 64; ++i) {
    const uint32_t s0 = Rotate(w[i - 15], 7) ^ Rotate(w[i - 15], 18) ^ (w[i - 15] >> 3);
    const uint32_t s1 = Rotate(w[i - 2], 17) ^ Rotate(w[i - 2], 19) ^ (w[i - 2] >> 10);
    w[i] = w[i - 16] + s0 + w[i - 7] + s1;
  }
  uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
  uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
  for (int i = 0; i < 64; ++i) {
    const uint32_t t1 =
        h + (Rotate(e, 6) ^ Rotate(e, 11) ^ Rotate(e, 25)) + ((e & f) ^ (~e & g)) + kRound[i] + w[i];
    const uint32_t t2 = (Rotate(a, 2) ^ Rotate(a, 13) ^ Rotate(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
    h = g;
    g = f;
    f = e;
    e = d + t1;
    d = c;
    c = b;
    b = a;
    a = t1 + t2;
  }
  state[0] += a;
  state[1] += b;
  state[2] += c;
  state[3] += d;
  state[4] += e;
  state[5] += f;
  state[6] += g;
  state[7] += h;
}

std::string Message(long time_ms, const std::string& label) { return std::to_string(time_ms) + " " + label; }

}  // namespace

std::string TriggerKey::Sha256(const std::string& data) {
  uint32_t state[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                       0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::string padded = data;
  padded.push_back(static_cast<char>(0x80));
  while (padded.size() % 64 != 56) padded.push_back('\0');
  const uint64_t bits = static_cast<uint64_t>(data.size()) * 8;
  for (int i = 7; i >= 0; --i) padded.push_back(static_cast<char>(bits >> (8 * i)));
  for (size_t at = 0; at < padded.size(); at += 64) {
    Compress(state, reinterpret_cast<const unsigned char*>(padded.data() + at));
  }
  std::string digest;
  for (uint32_t word : state) {
    for (int i = 3; i >= 0; --i) digest.push_back(static_cast<char>(word >> (8 * i)));
  }
  return digest;
}

std::string TriggerKey::Hmac(const std::string& key, const std::string& data) {
  std::string block = key.size() > 64 ? Sha256(key) : key;
  block.resize(64, '\0');
  std::string inner(64, '\0'), outer(64, '\0');
  for (size_t i = 0; i < 64; ++i) {
    inner[i] = static_cast<char>(block[i] ^ 0x36);
    outer[i] = static_cast<char>(block[i] ^ 0x5c);
  }
  return Sha256(outer + Sha256(inner + data));
}

std::string TriggerKey::Sign(long time_ms, const std::string& label) const {
  if (empty()) return "";
  static const char kHex[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char c : Hmac(secret_, Message(time_ms, label))) {
    hex.push_back(kHex[c >> 4]);
    hex.push_back(kHex[c & 15]);
  }
  return hex;
}

bool TriggerKey::Verify(long time_ms, const std::string& label, const std::string& mac) const {
  const std::string expected = Sign(time_ms, label);
  if (mac.size() != expected.size()) return false;
  unsigned char differ = 0;
  for (size_t i = 0; i < mac.size(); ++i) differ |= static_cast<unsigned char>(mac[i] ^ expected[i]);
  return differ == 0;
}

}  // namespace kelo
