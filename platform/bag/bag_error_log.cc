#include "platform/bag/bag_error_log.h"

#include <cstdio>

namespace kelo {

void BagErrorLog::Fail(const std::string& kind, const std::string& line) {
  std::lock_guard<std::mutex> lock(mu_);
  Episode& episode = open_[kind];
  if (episode.failures++ > 0) return;
  open_count_.fetch_add(1, std::memory_order_relaxed);
  episode.line = line;
  std::fprintf(stderr, "bag: %s\n", line.c_str());
}

void BagErrorLog::Recover(const std::string& kind, const std::string& line) {
  if (open_count_.load(std::memory_order_relaxed) == 0) return;
  std::lock_guard<std::mutex> lock(mu_);
  auto it = open_.find(kind);
  if (it == open_.end()) return;
  std::fprintf(stderr, "bag: %s (after %ld failure%s)\n", line.c_str(), it->second.failures,
               it->second.failures == 1 ? "" : "s");
  open_.erase(it);
  open_count_.fetch_sub(1, std::memory_order_relaxed);
}

long BagErrorLog::failures(const std::string& kind) const {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = open_.find(kind);
  return it == open_.end() ? 0 : it->second.failures;
}

std::string BagErrorLog::problems() const {
  if (open_count_.load(std::memory_order_relaxed) == 0) return "";
  std::lock_guard<std::mutex> lock(mu_);
  std::string text;
  for (const auto& entry : open_) text += (text.empty() ? "" : "; ") + entry.second.line;
  return text;
}

}  // namespace kelo
