#include "platform/udp/udp_reassembler.h"

#include <tuple>
#include <utility>

#include "platform/udp/udp_frame.h"

namespace kelo {

namespace {

// What a held fragment costs beyond its bytes (map node, string header), so that a flood
// of tiny fragments is bounded as surely as a few large ones.
constexpr size_t kFragmentOverhead = 96;
constexpr size_t kMessageOverhead = 256;

}  // namespace

bool UdpReassembler::MessageRef::operator<(const MessageRef& other) const {
  return std::tie(address, port, sender_id, message_id) <
         std::tie(other.address, other.port, other.sender_id, other.message_id);
}

UdpReassembler::UdpReassembler(const UdpReassemblyLimits& limits) : limits_(limits) {}

UdpReassembler::~UdpReassembler() = default;

bool UdpReassembler::Add(uint32_t address, uint16_t port, const void* data, size_t size, int64_t now_ms,
                         UdpMessage* message) {
  ++stats_.received_datagrams;
  Expire(now_ms);

  UdpFrame frame;
  switch (ParseUdpFrame(data, size, &frame)) {
    case UdpFrameStatus::kOk:
      break;
    case UdpFrameStatus::kBadMagic:
      ++stats_.foreign_datagrams;
      ++stats_.dropped_datagrams;
      return false;
    case UdpFrameStatus::kBadVersion:
      ++stats_.bad_version_datagrams;
      ++stats_.dropped_datagrams;
      return false;
    case UdpFrameStatus::kMalformed:
      ++stats_.malformed_datagrams;
      ++stats_.dropped_datagrams;
      return false;
  }

  const MessageRef ref{address, port, frame.sender_id, frame.message_id};
  if (remembered_.count(ref) != 0) {
    ++stats_.duplicate_datagrams;
    ++stats_.dropped_datagrams;
    return false;
  }
  if (frame.fragment_count == 1) {
    *message =
        UdpMessage(std::string(frame.key), std::string(frame.payload), frame.message_id, frame.reply_to);
    Remember(ref);
    ++stats_.completed_messages;
    return true;
  }

  auto it = partials_.find(ref);
  size_t charge = frame.payload.size() + kFragmentOverhead;
  if (it == partials_.end()) {
    charge += frame.key.size() + kMessageOverhead;
  } else {
    const Partial& p = it->second;
    if (p.key != frame.key || p.reply_to != frame.reply_to || p.body_size != frame.body_size ||
        p.fragment_count != frame.fragment_count) {
      ++stats_.malformed_datagrams;
      ++stats_.dropped_datagrams;
      return false;
    }
    if (p.fragments.count(frame.fragment_index) != 0) {
      ++stats_.duplicate_datagrams;
      ++stats_.dropped_datagrams;
      return false;
    }
  }

  // Make room before taking anything: the oldest waiting messages go first.
  if (it == partials_.end()) {
    while (partials_.size() >= limits_.max_pending_messages && EvictOldestExcept(ref)) {
    }
  }
  while (pending_bytes_ + charge > limits_.max_pending_bytes && EvictOldestExcept(ref)) {
  }
  if (pending_bytes_ + charge > limits_.max_pending_bytes ||
      (it == partials_.end() && partials_.size() >= limits_.max_pending_messages)) {
    // Even alone this message does not fit.
    if (it != partials_.end())
      Drop(it);
    else
      ++stats_.dropped_messages;
    return false;
  }

  if (it == partials_.end()) {
    it = partials_.emplace(ref, Partial()).first;
    Partial& p = it->second;
    p.key.assign(frame.key.data(), frame.key.size());
    p.reply_to = frame.reply_to;
    p.body_size = frame.body_size;
    p.fragment_count = frame.fragment_count;
  }
  Partial& p = it->second;
  p.fragments.emplace(frame.fragment_index, std::string(frame.payload));
  p.charged_bytes += charge;
  p.last_ms = now_ms;
  pending_bytes_ += charge;
  if (p.fragments.size() < p.fragment_count) return false;

  std::string body;
  body.reserve(p.body_size);
  for (const auto& fragment : p.fragments) body.append(fragment.second);
  *message = UdpMessage(std::move(p.key), std::move(body), frame.message_id, frame.reply_to);
  pending_bytes_ -= p.charged_bytes;
  partials_.erase(it);
  Remember(ref);
  ++stats_.completed_messages;
  return true;
}

void UdpReassembler::Expire(int64_t now_ms) {
  for (auto it = partials_.begin(); it != partials_.end();) {
    auto next = std::next(it);
    if (now_ms - it->second.last_ms >= limits_.timeout_ms) Drop(it);
    it = next;
  }
}

UdpCastStats UdpReassembler::stats() const {
  UdpCastStats s = stats_;
  s.pending_messages = partials_.size();
  s.pending_bytes = pending_bytes_;
  return s;
}

void UdpReassembler::Drop(std::map<MessageRef, Partial>::iterator it) {
  pending_bytes_ -= it->second.charged_bytes;
  partials_.erase(it);
  ++stats_.dropped_messages;
}

bool UdpReassembler::EvictOldestExcept(const MessageRef& keep) {
  auto oldest = partials_.end();
  for (auto it = partials_.begin(); it != partials_.end(); ++it) {
    if (!(it->first < keep) && !(keep < it->first)) continue;
    if (oldest == partials_.end() || it->second.last_ms < oldest->second.last_ms) oldest = it;
  }
  if (oldest == partials_.end()) return false;
  Drop(oldest);
  return true;
}

void UdpReassembler::Remember(const MessageRef& ref) {
  if (limits_.remembered_messages == 0) return;
  while (remembered_order_.size() >= limits_.remembered_messages) {
    remembered_.erase(remembered_order_.front());
    remembered_order_.pop_front();
  }
  remembered_.insert(ref);
  remembered_order_.push_back(ref);
}

}  // namespace kelo
