#ifndef KELO_PLATFORM_BAG_MCAP_COMPRESSION_H_
#define KELO_PLATFORM_BAG_MCAP_COMPRESSION_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/bag/bag_writer_options.h"

typedef struct ZSTD_CCtx_s ZSTD_CCtx;
typedef struct ZSTD_DCtx_s ZSTD_DCtx;
typedef struct LZ4F_dctx_s LZ4F_dctx;

namespace kelo {
namespace mcap {

// The compression field of a chunk written with `c`: "", "zstd" or "lz4".
const char* CompressionName(BagCompression c);

// Compresses chunk records. It keeps the codec's context between calls, so one object
// serves one thread at a time.
class ChunkCompressor {
 public:
  ChunkCompressor(BagCompression compression, int zstd_level);
  ~ChunkCompressor();
  ChunkCompressor(const ChunkCompressor&) = delete;
  ChunkCompressor& operator=(const ChunkCompressor&) = delete;

  BagCompression compression() const { return compression_; }

  // Replaces `out` with the compressed form of the bytes. False when the codec failed,
  // in which case the caller stores the records uncompressed.
  bool Compress(const char* data, size_t size, std::string* out);

 private:
  BagCompression compression_;
  int zstd_level_;
  ZSTD_CCtx* zstd_ = nullptr;
};

// Decompresses chunk records of any compression MCAP defines. One object serves one
// thread at a time.
class ChunkDecompressor {
 public:
  ChunkDecompressor();
  ~ChunkDecompressor();
  ChunkDecompressor(const ChunkDecompressor&) = delete;
  ChunkDecompressor& operator=(const ChunkDecompressor&) = delete;

  // Replaces `out` with the records, which must come to exactly `uncompressed_size` bytes.
  // Memory grows with the bytes actually produced, so a chunk that lies about its size
  // costs no more than its real content. On failure returns false and says why in `error`.
  bool Decompress(const std::string& compression, const char* data, size_t size,
                  uint64_t uncompressed_size, std::string* out, std::string* error);

 private:
  bool Zstd(const char* data, size_t size, uint64_t uncompressed_size, std::string* out,
            std::string* error);
  bool Lz4(const char* data, size_t size, uint64_t uncompressed_size, std::string* out,
           std::string* error);

  ZSTD_DCtx* zstd_ = nullptr;
  LZ4F_dctx* lz4_ = nullptr;
};

}  // namespace mcap
}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_MCAP_COMPRESSION_H_
