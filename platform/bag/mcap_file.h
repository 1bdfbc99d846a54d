#ifndef KELO_PLATFORM_BAG_MCAP_FILE_H_
#define KELO_PLATFORM_BAG_MCAP_FILE_H_

#include <cstdint>
#include <string>

namespace kelo {
namespace mcap {

// A file opened for positioned reads. Reads never go past the size the file had when it
// was opened, so lengths read from the file can be checked against size() before any
// memory is set aside for them. Safe for concurrent reads.
class RandomAccessFile {
 public:
  RandomAccessFile() = default;
  ~RandomAccessFile();
  RandomAccessFile(const RandomAccessFile&) = delete;
  RandomAccessFile& operator=(const RandomAccessFile&) = delete;

  // Opens `path`; on failure returns false and sets `error` to the system's reason.
  bool Open(const std::string& path, std::string* error);

  uint64_t size() const { return size_; }

  // Replaces `out` with the `n` bytes at `offset`; false when they are not all in the file
  // or cannot be read.
  bool Read(uint64_t offset, uint64_t n, std::string* out) const;
  bool Read(uint64_t offset, uint64_t n, char* out) const;

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
};

// Reads a file front to back through a window, for scanning records without one system
// call each. The window never grows past what one request needs or the file holds.
class SequentialReader {
 public:
  explicit SequentialReader(const RandomAccessFile* file) : file_(file) {}

  // A pointer to the `n` bytes at `offset`, valid until the next call; null when they are
  // not all in the file.
  const char* Get(uint64_t offset, uint64_t n);

 private:
  static constexpr uint64_t kWindow = 1 << 20;

  const RandomAccessFile* file_;
  std::string buffer_;
  uint64_t buffer_offset_ = 0;
};

}  // namespace mcap
}  // namespace kelo

#endif  // KELO_PLATFORM_BAG_MCAP_FILE_H_
