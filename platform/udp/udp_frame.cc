#include "platform/udp/udp_frame.h"

#include <cstring>
#include <utility>

namespace kelo {

namespace {

uint16_t Load16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t Load32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

void Store(char* p, uint64_t value, size_t width) {
  for (size_t i = 0; i < width; ++i) p[i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

}  // namespace

bool UdpFragmentRange(uint32_t body_size, uint16_t count, uint16_t index, size_t* offset, size_t* length) {
  if (count == 0 || index >= count || body_size > kUdpMaxBodyBytes) return false;
  if (body_size == 0) {
    if (count != 1) return false;
    *offset = 0;
    *length = 0;
    return true;
  }
  if (count > body_size) return false;
  const uint64_t chunk = (uint64_t{body_size} + count - 1) / count;
  // A count whose chunks run out before the last fragment is not one EncodeUdpFrames makes.
  if (chunk * (count - 1) >= body_size) return false;
  const uint64_t begin = chunk * index;
  const uint64_t end = begin + chunk < body_size ? begin + chunk : body_size;
  *offset = static_cast<size_t>(begin);
  *length = static_cast<size_t>(end - begin);
  return true;
}

UdpFrameStatus ParseUdpFrame(const void* data, size_t size, UdpFrame* frame) {
  const auto* p = static_cast<const unsigned char*>(data);
  if (size < sizeof(kUdpFrameMagic) || std::memcmp(p, kUdpFrameMagic, sizeof(kUdpFrameMagic)) != 0) {
    return UdpFrameStatus::kBadMagic;
  }
  if (size < 6) return UdpFrameStatus::kMalformed;
  if (p[4] != kUdpFrameVersion || p[5] != 0) return UdpFrameStatus::kBadVersion;
  if (size < kUdpFrameHeaderBytes) return UdpFrameStatus::kMalformed;

  UdpFrame f;
  const size_t key_size = Load16(p + 6);
  f.sender_id = Load32(p + 8);
  f.message_id = Load32(p + 12);
  f.reply_to = Load32(p + 16);
  f.body_size = Load32(p + 20);
  f.fragment_index = Load16(p + 24);
  f.fragment_count = Load16(p + 26);
  if (key_size > kUdpMaxKeyBytes || key_size > size - kUdpFrameHeaderBytes) return UdpFrameStatus::kMalformed;

  size_t offset, length;
  if (!UdpFragmentRange(f.body_size, f.fragment_count, f.fragment_index, &offset, &length)) {
    return UdpFrameStatus::kMalformed;
  }
  const size_t payload_size = size - kUdpFrameHeaderBytes - key_size;
  if (payload_size != length) return UdpFrameStatus::kMalformed;

  const char* chars = static_cast<const char*>(data);
  f.key = std::string_view(chars + kUdpFrameHeaderBytes, key_size);
  f.payload = std::string_view(chars + kUdpFrameHeaderBytes + key_size, payload_size);
  *frame = f;
  return UdpFrameStatus::kOk;
}

bool EncodeUdpFrames(uint32_t sender_id, uint32_t message_id, uint32_t reply_to, std::string_view key,
                     std::string_view body, size_t max_datagram, std::vector<std::string>* datagrams) {
  datagrams->clear();
  if (key.size() > kUdpMaxKeyBytes || body.size() > kUdpMaxBodyBytes) return false;
  if (max_datagram > kUdpMaxDatagramBytes) max_datagram = kUdpMaxDatagramBytes;
  if (max_datagram <= kUdpFrameHeaderBytes + key.size()) return false;
  const size_t capacity = max_datagram - kUdpFrameHeaderBytes - key.size();
  const size_t count = body.empty() ? 1 : (body.size() + capacity - 1) / capacity;
  if (count > kUdpMaxFragments) return false;

  const auto body_size = static_cast<uint32_t>(body.size());
  datagrams->reserve(count);
  for (size_t i = 0; i < count; ++i) {
    size_t offset = 0, length = 0;
    UdpFragmentRange(body_size, static_cast<uint16_t>(count), static_cast<uint16_t>(i), &offset, &length);
    std::string d(kUdpFrameHeaderBytes + key.size() + length, '\0');
    std::memcpy(&d[0], kUdpFrameMagic, sizeof(kUdpFrameMagic));
    d[4] = static_cast<char>(kUdpFrameVersion);
    d[5] = 0;
    Store(&d[6], key.size(), 2);
    Store(&d[8], sender_id, 4);
    Store(&d[12], message_id, 4);
    Store(&d[16], reply_to, 4);
    Store(&d[20], body_size, 4);
    Store(&d[24], i, 2);
    Store(&d[26], count, 2);
    if (!key.empty()) std::memcpy(&d[kUdpFrameHeaderBytes], key.data(), key.size());
    if (length > 0) std::memcpy(&d[kUdpFrameHeaderBytes + key.size()], body.data() + offset, length);
    datagrams->push_back(std::move(d));
  }
  return true;
}

}  // namespace kelo
