#include "platform/udp/memory_stream.h"

#include <cstring>
#include <limits>
#include <utility>

namespace kelo {

MemoryStream::MemoryStream() : read_pos_(0) {}

MemoryStream::MemoryStream(std::string data) : buffer_(std::move(data)), read_pos_(0) {}

MemoryStream::~MemoryStream() = default;

bool MemoryStream::write_string(const std::string& data) {
  if (data.size() > std::numeric_limits<uint32_t>::max()) return false;
  write_uint32(static_cast<uint32_t>(data.size()));
  buffer_.append(data);
  return true;
}

void MemoryStream::write_bytes(const void* data, size_t size) {
  if (size > 0) buffer_.append(static_cast<const char*>(data), size);
}

void MemoryStream::write_uint8(uint8_t value) { WriteFixed(1, value); }
void MemoryStream::write_uint16(uint16_t value) { WriteFixed(2, value); }
void MemoryStream::write_uint32(uint32_t value) { WriteFixed(4, value); }
void MemoryStream::write_uint64(uint64_t value) { WriteFixed(8, value); }
void MemoryStream::write_int32(int32_t value) { WriteFixed(4, static_cast<uint32_t>(value)); }
void MemoryStream::write_int64(int64_t value) { WriteFixed(8, static_cast<uint64_t>(value)); }

void MemoryStream::write_double(double value) {
  uint64_t bits;
  static_assert(sizeof(bits) == sizeof(value), "double must be 64 bits");
  std::memcpy(&bits, &value, sizeof(bits));
  WriteFixed(8, bits);
}

bool MemoryStream::read_string(std::string* value) {
  const size_t start = read_pos_;
  uint32_t length;
  if (!read_uint32(&length)) return false;
  // The length comes from the data: check it against what is there before taking it.
  if (length > remaining()) {
    read_pos_ = start;
    return false;
  }
  value->assign(buffer_, read_pos_, length);
  read_pos_ += length;
  return true;
}

bool MemoryStream::read_bytes(size_t size, std::string* value) {
  if (size > remaining()) return false;
  value->assign(buffer_, read_pos_, size);
  read_pos_ += size;
  return true;
}

bool MemoryStream::read_uint8(uint8_t* value) {
  uint64_t v;
  if (!ReadFixed(1, &v)) return false;
  *value = static_cast<uint8_t>(v);
  return true;
}

bool MemoryStream::read_uint16(uint16_t* value) {
  uint64_t v;
  if (!ReadFixed(2, &v)) return false;
  *value = static_cast<uint16_t>(v);
  return true;
}

bool MemoryStream::read_uint32(uint32_t* value) {
  uint64_t v;
  if (!ReadFixed(4, &v)) return false;
  *value = static_cast<uint32_t>(v);
  return true;
}

bool MemoryStream::read_uint64(uint64_t* value) { return ReadFixed(8, value); }

bool MemoryStream::read_int32(int32_t* value) {
  uint32_t v;
  if (!read_uint32(&v)) return false;
  *value = static_cast<int32_t>(v);
  return true;
}

bool MemoryStream::read_int64(int64_t* value) {
  uint64_t v;
  if (!ReadFixed(8, &v)) return false;
  *value = static_cast<int64_t>(v);
  return true;
}

bool MemoryStream::read_double(double* value) {
  uint64_t bits;
  if (!ReadFixed(8, &bits)) return false;
  std::memcpy(value, &bits, sizeof(bits));
  return true;
}

void MemoryStream::clear() {
  buffer_.clear();
  read_pos_ = 0;
}

bool MemoryStream::ReadFixed(size_t width, uint64_t* value) {
  if (width > remaining()) return false;
  uint64_t v = 0;
  for (size_t i = 0; i < width; ++i) {
    v |= static_cast<uint64_t>(static_cast<unsigned char>(buffer_[read_pos_ + i])) << (8 * i);
  }
  read_pos_ += width;
  *value = v;
  return true;
}

void MemoryStream::WriteFixed(size_t width, uint64_t value) {
  for (size_t i = 0; i < width; ++i) buffer_.push_back(static_cast<char>(value >> (8 * i)));
}

}  // namespace kelo
