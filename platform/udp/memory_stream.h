#ifndef KELO_PLATFORM_UDP_MEMORY_STREAM_H_
#define KELO_PLATFORM_UDP_MEMORY_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace kelo {

// A byte buffer written at its end and read from a cursor, so that a reader takes back
// exactly what a writer put in:
//
//   MemoryStream out;  out.write_uint32(7);  out.write_string("abc");
//   MemoryStream in(out.data());  uint32_t n;  std::string s;
//   bool ok = in.read_uint32(&n) && in.read_string(&s);   // n == 7, s == "abc"
//
// Integers are stored little-endian in their fixed width, doubles as their IEEE-754 bits,
// strings as a 32-bit length followed by the bytes. A read that would run past the end
// returns false and leaves the cursor where it was, whatever length the data claims.
// One thread at a time per stream.
class MemoryStream {
 public:
  MemoryStream();
  // A stream holding `data`, its cursor at the start.
  explicit MemoryStream(std::string data);
  virtual ~MemoryStream();

  MemoryStream(const MemoryStream&) = default;
  MemoryStream& operator=(const MemoryStream&) = default;
  MemoryStream(MemoryStream&&) = default;
  MemoryStream& operator=(MemoryStream&&) = default;

  // Appends `data` with its length before it; read_string() gives it back. Strings of 4 GiB
  // or more cannot be framed: they are not written and false is returned.
  bool write_string(const std::string& data);
  // Appends raw bytes, with no length: the reader must know how many to take.
  void write_bytes(const void* data, size_t size);
  void write_uint8(uint8_t value);
  void write_uint16(uint16_t value);
  void write_uint32(uint32_t value);
  void write_uint64(uint64_t value);
  void write_int32(int32_t value);
  void write_int64(int64_t value);
  void write_double(double value);

  // Each read moves the cursor past what it took and returns true, or returns false with
  // the cursor and `*value` untouched when too few bytes remain.
  bool read_string(std::string* value);
  bool read_bytes(size_t size, std::string* value);
  bool read_uint8(uint8_t* value);
  bool read_uint16(uint16_t* value);
  bool read_uint32(uint32_t* value);
  bool read_uint64(uint64_t* value);
  bool read_int32(int32_t* value);
  bool read_int64(int64_t* value);
  bool read_double(double* value);

  // Everything written, from the first byte, wherever the cursor is.
  const std::string& data() const { return buffer_; }
  size_t size() const { return buffer_.size(); }
  size_t read_position() const { return read_pos_; }
  size_t remaining() const { return buffer_.size() - read_pos_; }
  // Moves the cursor back to the first byte.
  void rewind() { read_pos_ = 0; }
  // Empties the stream.
  void clear();

 private:
  bool ReadFixed(size_t width, uint64_t* value);
  void WriteFixed(size_t width, uint64_t value);

  std::string buffer_;
  size_t read_pos_;
};

}  // namespace kelo

#endif  // KELO_PLATFORM_UDP_MEMORY_STREAM_H_
