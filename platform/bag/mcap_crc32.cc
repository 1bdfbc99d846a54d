#include "platform/bag/mcap_crc32.h"

#include <zlib.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace kelo {
namespace mcap {

#if defined(__x86_64__)
namespace {

#define KELO_FOLD_TARGET __attribute__((target("pclmul,sse4.1")))

KELO_FOLD_TARGET inline __m128i Load(const unsigned char* at) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

// x times x^(distance) folded onto `next`: the low half times one constant, the high half
// times the other.
KELO_FOLD_TARGET inline __m128i Fold(__m128i x, __m128i k, __m128i next) {
  return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(x, k, 0x00), _mm_clmulepi64_si128(x, k, 0x11)), next);
}

// The CRC by carry-less multiplication, 16 bytes a step in four independent lanes: the
// reader checks every chunk it reads, and zlib's table-driven CRC ran at a sixth of the
// speed the page cache hands out bytes. The constants are x^(32*k) mod P for the folding
// distances (512 and 128 bits, each minus 32 and plus 32), x^64 mod P for the last fold,
// and P with its Barrett constant, all bit-reflected as zlib's CRC is.
//
// Takes and returns the CRC register as it runs (not inverted), `size` a multiple of 16
// and at least 64.
KELO_FOLD_TARGET uint32_t FoldCrc32(uint32_t crc, const unsigned char* p, size_t size) {
  const __m128i k1k2 = _mm_set_epi64x(0x1c6e41596, 0x154442bd4);  // 512-bit folds
  const __m128i k3k4 = _mm_set_epi64x(0x0ccaa009e, 0x1751997d0);  // 128-bit folds
  const __m128i k5 = _mm_set_epi64x(0, 0x163cd6124);
  const __m128i poly_mu = _mm_set_epi64x(0x1f7011641, 0x1db710641);
  const __m128i mask32 = _mm_set_epi32(0, 0, 0, -1);

  __m128i x0 = _mm_xor_si128(Load(p), _mm_cvtsi32_si128(static_cast<int>(crc)));
  __m128i x1 = Load(p + 16), x2 = Load(p + 32), x3 = Load(p + 48);
  p += 64;
  size -= 64;
  for (; size >= 64; p += 64, size -= 64) {
    x0 = Fold(x0, k1k2, Load(p));
    x1 = Fold(x1, k1k2, Load(p + 16));
    x2 = Fold(x2, k1k2, Load(p + 32));
    x3 = Fold(x3, k1k2, Load(p + 48));
  }
  __m128i x = Fold(x0, k3k4, x1);
  x = Fold(x, k3k4, x2);
  x = Fold(x, k3k4, x3);
  for (; size >= 16; p += 16, size -= 16) x = Fold(x, k3k4, Load(p));

  // 128 bits to 64, then to 32, then Barrett's reduction modulo P.
  x = _mm_xor_si128(_mm_clmulepi64_si128(x, k3k4, 0x10), _mm_srli_si128(x, 8));
  x = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x, mask32), k5, 0x00), _mm_srli_si128(x, 4));
  __m128i t = _mm_and_si128(_mm_clmulepi64_si128(_mm_and_si128(x, mask32), poly_mu, 0x10), mask32);
  t = _mm_xor_si128(_mm_clmulepi64_si128(t, poly_mu, 0x00), x);
  return static_cast<uint32_t>(_mm_extract_epi32(t, 1));
}

#undef KELO_FOLD_TARGET

bool HasFold() {
  static const bool has = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("sse4.1");
  return has;
}

}  // namespace
#endif

uint32_t Crc32Extend(uint32_t crc, const void* data, size_t size) {
  const unsigned char* p = static_cast<const unsigned char*>(data);
#if defined(__x86_64__)
  if (size >= 64 && HasFold()) {
    const size_t bulk = size & ~size_t{15};
    crc = ~FoldCrc32(~crc, p, bulk);
    p += bulk;
    size -= bulk;
  }
#endif
  return static_cast<uint32_t>(crc32_z(crc, p, size));
}

uint32_t Crc32Combine(uint32_t crc_a, uint32_t crc_b, uint64_t size_b) {
  return static_cast<uint32_t>(crc32_combine(crc_a, crc_b, static_cast<z_off_t>(size_b)));
}

}  // namespace mcap
}  // namespace kelo
