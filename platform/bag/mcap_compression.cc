#include "platform/bag/mcap_compression.h"

#include <lz4frame.h>
#include <zstd.h>

#include <algorithm>

namespace kelo {
namespace mcap {

namespace {

// The first allocation for decompressed records. Genuine chunks rarely shrink more than
// this ratio, so they are decompressed without growing the buffer; a chunk that claims a
// huge size is only given memory as it really produces bytes.
constexpr uint64_t kTrustedRatio = 64;
constexpr uint64_t kMinFirstAllocation = 64 << 10;

size_t FirstAllocation(size_t compressed, uint64_t uncompressed) {
  uint64_t trusted = std::max<uint64_t>(kMinFirstAllocation, compressed * kTrustedRatio);
  return static_cast<size_t>(std::min(uncompressed, trusted));
}

// Grows `out` towards `limit`; false when it is already there.
bool Grow(std::string* out, uint64_t limit) {
  if (out->size() >= limit) return false;
  uint64_t next = std::min<uint64_t>(limit, std::max<uint64_t>(out->size() * 2, 4096));
  out->resize(static_cast<size_t>(next));
  return true;
}

}  // namespace

const char* CompressionName(BagCompression c) {
  switch (c) {
    case BagCompression::kZstd:
      return "zstd";
    case BagCompression::kLz4:
      return "lz4";
    case BagCompression::kNone:
      break;
  }
  return "";
}

ChunkCompressor::ChunkCompressor(BagCompression compression, int zstd_level)
    : compression_(compression), zstd_level_(zstd_level) {}

ChunkCompressor::~ChunkCompressor() { ZSTD_freeCCtx(zstd_); }

bool ChunkCompressor::Compress(const char* data, size_t size, std::string* out) {
  switch (compression_) {
    case BagCompression::kZstd: {
      if (zstd_ == nullptr) {
        zstd_ = ZSTD_createCCtx();
        if (zstd_ == nullptr) return false;
        ZSTD_CCtx_setParameter(zstd_, ZSTD_c_compressionLevel, zstd_level_);
        ZSTD_CCtx_setParameter(zstd_, ZSTD_c_contentSizeFlag, 1);
      }
      out->resize(ZSTD_compressBound(size));
      size_t n = ZSTD_compress2(zstd_, &(*out)[0], out->size(), data, size);
      if (ZSTD_isError(n)) {
        ZSTD_CCtx_reset(zstd_, ZSTD_reset_session_only);
        return false;
      }
      out->resize(n);
      return true;
    }
    case BagCompression::kLz4: {
      LZ4F_preferences_t prefs = LZ4F_INIT_PREFERENCES;
      prefs.frameInfo.contentSize = size;
      prefs.frameInfo.blockSizeID = LZ4F_max4MB;
      out->resize(LZ4F_compressFrameBound(size, &prefs));
      size_t n = LZ4F_compressFrame(&(*out)[0], out->size(), data, size, &prefs);
      if (LZ4F_isError(n)) return false;
      out->resize(n);
      return true;
    }
    case BagCompression::kNone:
      break;
  }
  out->assign(data, size);
  return true;
}

ChunkDecompressor::ChunkDecompressor() = default;

ChunkDecompressor::~ChunkDecompressor() {
  ZSTD_freeDCtx(zstd_);
  if (lz4_ != nullptr) LZ4F_freeDecompressionContext(lz4_);
}

bool ChunkDecompressor::Decompress(const std::string& compression, const char* data,
                                   size_t size, uint64_t uncompressed_size, std::string* out,
                                   std::string* error) {
  out->clear();
  if (compression.empty() || size == 0) {
    // An empty records field needs no codec, whatever the chunk claims to use.
    if (size != uncompressed_size) {
      *error = "chunk records are " + std::to_string(size) + " bytes, not " +
               std::to_string(uncompressed_size);
      return false;
    }
    out->assign(data, size);
    return true;
  }
  if (compression == "zstd") return Zstd(data, size, uncompressed_size, out, error);
  if (compression == "lz4") return Lz4(data, size, uncompressed_size, out, error);
  *error = "unsupported chunk compression '" + compression + "'";
  return false;
}

bool ChunkDecompressor::Zstd(const char* data, size_t size, uint64_t uncompressed_size,
                             std::string* out, std::string* error) {
  if (zstd_ == nullptr) zstd_ = ZSTD_createDCtx();
  if (zstd_ == nullptr) {
    *error = "out of memory for zstd";
    return false;
  }
  ZSTD_DCtx_reset(zstd_, ZSTD_reset_session_only);
  out->resize(FirstAllocation(size, uncompressed_size));
  ZSTD_inBuffer in{data, size, 0};
  size_t produced = 0;
  char spare[16];
  size_t last = 1;
  for (;;) {
    if (produced == out->size() && !Grow(out, uncompressed_size)) {
      // Full at the announced size: anything more is a size mismatch.
      ZSTD_outBuffer probe{spare, sizeof(spare), 0};
      while (in.pos < in.size || last != 0) {
        size_t before = in.pos;
        last = ZSTD_decompressStream(zstd_, &probe, &in);
        if (ZSTD_isError(last) || probe.pos > 0) {
          *error = "zstd chunk is larger than its announced " + std::to_string(uncompressed_size) +
                   " bytes";
          return false;
        }
        if (in.pos == before && last != 0) {
          *error = "zstd chunk is truncated";
          return false;
        }
      }
      return true;
    }
    ZSTD_outBuffer ob{&(*out)[0], out->size(), produced};
    size_t before_in = in.pos;
    last = ZSTD_decompressStream(zstd_, &ob, &in);
    if (ZSTD_isError(last)) {
      *error = std::string("zstd: ") + ZSTD_getErrorName(last);
      return false;
    }
    bool progress = ob.pos != produced || in.pos != before_in;
    produced = ob.pos;
    if (in.pos == in.size && last == 0) break;
    if (!progress && produced < out->size()) {
      *error = "zstd chunk is truncated";
      return false;
    }
  }
  if (produced != uncompressed_size) {
    *error = "zstd chunk holds " + std::to_string(produced) + " bytes, not " +
             std::to_string(uncompressed_size);
    return false;
  }
  out->resize(produced);
  return true;
}

bool ChunkDecompressor::Lz4(const char* data, size_t size, uint64_t uncompressed_size,
                            std::string* out, std::string* error) {
  if (lz4_ == nullptr && LZ4F_isError(LZ4F_createDecompressionContext(&lz4_, LZ4F_VERSION))) {
    lz4_ = nullptr;
    *error = "out of memory for lz4";
    return false;
  }
  LZ4F_resetDecompressionContext(lz4_);
  out->resize(FirstAllocation(size, uncompressed_size));
  size_t consumed = 0;
  size_t produced = 0;
  size_t hint = 1;
  char spare[16];
  while (consumed < size) {
    char* dst;
    size_t room;
    bool probing = false;
    if (produced == out->size() && !Grow(out, uncompressed_size)) {
      dst = spare;
      room = sizeof(spare);
      probing = true;
    } else {
      dst = &(*out)[produced];
      room = out->size() - produced;
    }
    size_t in_n = size - consumed;
    size_t out_n = room;
    hint = LZ4F_decompress(lz4_, dst, &out_n, data + consumed, &in_n, nullptr);
    if (LZ4F_isError(hint)) {
      *error = std::string("lz4: ") + LZ4F_getErrorName(hint);
      return false;
    }
    if (probing && out_n > 0) {
      *error = "lz4 chunk is larger than its announced " + std::to_string(uncompressed_size) +
               " bytes";
      return false;
    }
    if (!probing) produced += out_n;
    consumed += in_n;
    if (in_n == 0 && out_n == 0) {
      *error = "lz4 chunk does not decode";
      return false;
    }
  }
  if (hint != 0) {
    *error = "lz4 chunk is truncated";
    return false;
  }
  if (produced != uncompressed_size) {
    *error = "lz4 chunk holds " + std::to_string(produced) + " bytes, not " +
             std::to_string(uncompressed_size);
    return false;
  }
  out->resize(produced);
  return true;
}

}  // namespace mcap
}  // namespace kelo
