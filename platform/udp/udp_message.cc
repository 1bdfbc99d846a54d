#include "platform/udp/udp_message.h"

#include <utility>

namespace kelo {

UdpMessage::UdpMessage() : id_(0), reply_to_(0) {}

UdpMessage::UdpMessage(std::string key) : key_(std::move(key)), id_(0), reply_to_(0) {}

UdpMessage::UdpMessage(std::string key, std::string body)
    : MemoryStream(std::move(body)), key_(std::move(key)), id_(0), reply_to_(0) {}

UdpMessage::UdpMessage(std::string key, std::string body, uint32_t id, uint32_t reply_to)
    : MemoryStream(std::move(body)), key_(std::move(key)), id_(id), reply_to_(reply_to) {}

UdpMessage::~UdpMessage() = default;

UdpMessage UdpMessage::create_recv(const std::string& key) const {
  return UdpMessage(key, std::string(), 0, id_);
}

}  // namespace kelo
