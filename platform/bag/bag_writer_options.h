#ifndef KELO_PLATFORM_BAG_BAG_WRITER_OPTIONS_H_
#define KELO_PLATFORM_BAG_BAG_WRITER_OPTIONS_H_

#include <cstddef>

namespace kelo {

// How the records of a chunk are stored.
enum class BagCompression {
  kNone,  // as they are
  kZstd,  // a Zstandard frame
  kLz4,   // an LZ4 frame
};

// Settings of a BagWriter. The defaults are what the recorder uses.
struct BagWriterOptions {
  BagCompression compression = BagCompression::kZstd;
  int zstd_level = 1;

  // A chunk is closed once its records reach this many bytes; a bigger message still gets
  // a chunk of its own.
  size_t chunk_size = 1 << 20;

  // A chunk is closed this long after its first message arrived, even if it is small, so
  // that a crash loses at most about this much data.
  long chunk_duration_ms = 1000;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_BAG_WRITER_OPTIONS_H_
