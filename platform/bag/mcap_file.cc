#include "platform/bag/mcap_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kelo {
namespace mcap {

RandomAccessFile::~RandomAccessFile() {
  if (fd_ >= 0) ::close(fd_);
}

bool RandomAccessFile::Open(const std::string& path, std::string* error) {
  // Without O_NONBLOCK, opening a named pipe would wait for a writer; the type is checked
  // right after, and reads of a regular file ignore the flag.
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat st;
  if (fd_ < 0 || ::fstat(fd_, &st) != 0) {
    char buf[256];
    *error = strerror_r(errno, buf, sizeof(buf));
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    *error = "not a regular file";
    return false;
  }
  size_ = static_cast<uint64_t>(st.st_size);
  return true;
}

bool RandomAccessFile::Read(uint64_t offset, uint64_t n, char* out) const {
  if (offset > size_ || n > size_ - offset) return false;
  uint64_t done = 0;
  while (done < n) {
    ssize_t r = ::pread(fd_, out + done, static_cast<size_t>(n - done), static_cast<off_t>(offset + done));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;  // an error, or the file shrank under us
    done += static_cast<uint64_t>(r);
  }
  return true;
}

bool RandomAccessFile::Read(uint64_t offset, uint64_t n, std::string* out) const {
  if (offset > size_ || n > size_ - offset) return false;
  out->resize(static_cast<size_t>(n));
  return n == 0 || Read(offset, n, &(*out)[0]);
}

const char* SequentialReader::Get(uint64_t offset, uint64_t n) {
  const uint64_t size = file_->size();
  if (offset > size || n > size - offset) return nullptr;
  if (offset >= buffer_offset_ && offset + n <= buffer_offset_ + buffer_.size()) {
    return buffer_.data() + (offset - buffer_offset_);
  }
  const uint64_t want = std::min(std::max(n, kWindow), size - offset);
  if (!file_->Read(offset, want, &buffer_)) {
    buffer_.clear();
    return nullptr;
  }
  buffer_offset_ = offset;
  return buffer_.data();
}

}  // namespace mcap
}  // namespace kelo
