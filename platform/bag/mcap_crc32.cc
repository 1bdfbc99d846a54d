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

// Where the processor multiplies both halves of a 256-bit register at once (twice the
// speed here), the folds below go 128 bytes a step in eight lanes, two to a register.
#define KELO_WIDE_TARGET __attribute__((target("vpclmulqdq,avx2,pclmul,sse4.1")))

KELO_WIDE_TARGET inline __m256i WideLoad(const unsigned char* at) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
}

KELO_WIDE_TARGET inline __m256i WideFold(__m256i x, __m256i k, __m256i next) {
  return _mm256_xor_si256(
      _mm256_xor_si256(_mm256_clmulepi64_epi128(x, k, 0x00), _mm256_clmulepi64_epi128(x, k, 0x11)), next);
}

// Folds the bulk of at least 128 bytes from `*at` into one 128-bit lane, the CRC register
// `crc` taken in first; leaves `*at` and `*left` after the bytes it took.
KELO_WIDE_TARGET __m128i WideFoldCrc32(uint32_t crc, const unsigned char** at, size_t* left, __m128i k3k4) {
  const __m256i k = _mm256_set_epi64x(0x14a7fe880, 0x1e88ef372, 0x14a7fe880, 0x1e88ef372);  // 1024-bit folds
  const unsigned char* p = *at;
  size_t size = *left;
  __m256i y[4];
  for (int i = 0; i < 4; ++i) y[i] = WideLoad(p + 32 * i);
  y[0] = _mm256_xor_si256(y[0], _mm256_set_epi32(0, 0, 0, 0, 0, 0, 0, static_cast<int>(crc)));
  for (p += 128, size -= 128; size >= 128; p += 128, size -= 128) {
    for (int i = 0; i < 4; ++i) y[i] = WideFold(y[i], k, WideLoad(p + 32 * i));
  }
  __m128i x = _mm256_castsi256_si128(y[0]);
  x = Fold(x, k3k4, _mm256_extracti128_si256(y[0], 1));
  for (int i = 1; i < 4; ++i) {
    x = Fold(x, k3k4, _mm256_castsi256_si128(y[i]));
    x = Fold(x, k3k4, _mm256_extracti128_si256(y[i], 1));
  }
  *at = p;
  *left = size;
  return x;
}

#undef KELO_WIDE_TARGET

bool HasWideFold() {
  static const bool has = __builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("avx2");
  return has;
}

// The CRC by carry-less multiplication, 16 bytes a step in four (or eight) lanes: the
// reader checks every chunk it reads, and zlib's table-driven CRC ran at a sixth of the
// speed the page cache hands out bytes. The constants are x^(32*k) mod P for the folding
// distances (1024, 512 and 128 bits, each minus 32 and plus 32), x^64 mod P for the last
// fold, and P with its Barrett constant, all bit-reflected as zlib's CRC is.
//
// Takes and returns the CRC register as it runs (not inverted), `size` a multiple of 16
// and at least 64.
KELO_FOLD_TARGET uint32_t FoldCrc32(uint32_t crc, const unsigned char* p, size_t size) {
  const __m128i k1k2 = _mm_set_epi64x(0x1c6e41596, 0x154442bd4);  // 512-bit folds
  const __m128i k3k4 = _mm_set_epi64x(0x0ccaa009e, 0x1751997d0);  // 128-bit folds
  const __m128i k5 = _mm_set_epi64x(0, 0x163cd6124);
  const __m128i poly_mu = _mm_set_epi64x(0x1f7011641, 0x1db710641);
  const __m128i mask32 = _mm_set_epi32(0, 0, 0, -1);

  __m128i x;
  if (size >= 256 && HasWideFold()) {
    x = WideFoldCrc32(crc, &p, &size, k3k4);
  } else {
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
    x = Fold(x0, k3k4, x1);
    x = Fold(x, k3k4, x2);
    x = Fold(x, k3k4, x3);
  }
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
