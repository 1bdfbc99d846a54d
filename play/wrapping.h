#ifndef KELO_PLAY_WRAPPING_H_
#define KELO_PLAY_WRAPPING_H_

#include <cstdint>

namespace kelo {
namespace play_internal {

// Two's-complement arithmetic on signed 64-bit times. Play ranges and clock offsets come
// from callers and may be extreme; these give the bits a plain machine add would give,
// without the undefined behaviour of a signed overflow.
inline int64_t WrapAdd(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

inline int64_t WrapSub(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

inline int64_t WrapMul(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) * static_cast<uint64_t>(b));
}

}  // namespace play_internal
}  // namespace kelo

#endif  // KELO_PLAY_WRAPPING_H_
