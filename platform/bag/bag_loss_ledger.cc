#include "platform/bag/bag_loss_ledger.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace kelo {

namespace {

const char* const kReasonNames[kBagLossReasons] = {"queue_full", "write_error", "disk_full", "window_cut",
                                                   "shutdown",   "empty",       "bad_time"};

}  // namespace

const char BagLosses::kMetadataName[] = "kelo_losses";

const char* BagLossReasonName(BagLossReason reason) { return kReasonNames[static_cast<int>(reason)]; }

bool BagLossReasonFromName(const std::string& name, BagLossReason* reason) {
  for (int i = 0; i < kBagLossReasons; ++i) {
    if (name == kReasonNames[i]) {
      *reason = static_cast<BagLossReason>(i);
      return true;
    }
  }
  return false;
}

void BagLosses::Add(const std::string& topic, BagLossReason reason, uint64_t count) {
  if (count == 0) return;
  Counts& counts = by_topic_.emplace(topic, Counts{}).first->second;
  counts[static_cast<int>(reason)] += count;
}

void BagLosses::Add(const BagLosses& other) {
  for (const auto& [topic, counts] : other.by_topic_) {
    for (int i = 0; i < kBagLossReasons; ++i) Add(topic, static_cast<BagLossReason>(i), counts[i]);
  }
}

uint64_t BagLosses::total() const {
  uint64_t sum = 0;
  for (int i = 0; i < kBagLossReasons; ++i) sum += total(static_cast<BagLossReason>(i));
  return sum;
}

uint64_t BagLosses::total(BagLossReason reason) const {
  uint64_t sum = 0;
  for (const auto& entry : by_topic_) sum += entry.second[static_cast<int>(reason)];
  return sum;
}

uint64_t BagLosses::topic_total(const std::string& topic) const {
  auto it = by_topic_.find(topic);
  uint64_t sum = 0;
  if (it != by_topic_.end()) {
    for (uint64_t n : it->second) sum += n;
  }
  return sum;
}

std::string BagLosses::Describe() const {
  Counts totals{};
  for (int i = 0; i < kBagLossReasons; ++i) totals[i] = total(static_cast<BagLossReason>(i));
  return Describe(totals);
}

std::string BagLosses::Describe(const Counts& counts) {
  std::vector<std::pair<uint64_t, int>> reasons;
  for (int i = 0; i < kBagLossReasons; ++i) {
    if (counts[i] > 0) reasons.emplace_back(counts[i], i);
  }
  std::stable_sort(reasons.begin(), reasons.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  std::string text;
  for (const auto& [n, i] : reasons) {
    std::string name = kReasonNames[i];
    std::replace(name.begin(), name.end(), '_', ' ');
    text += (text.empty() ? "" : ", ") + std::to_string(n) + " " + name;
  }
  return text;
}

std::vector<std::pair<std::string, std::string>> BagLosses::ToMetadata() const {
  std::vector<std::pair<std::string, std::string>> values;
  for (const auto& [topic, counts] : by_topic_) {
    std::string value;
    for (int i = 0; i < kBagLossReasons; ++i) {
      if (counts[i] == 0) continue;
      value += (value.empty() ? "" : " ") + std::string(kReasonNames[i]) + "=" + std::to_string(counts[i]);
    }
    values.emplace_back(topic, value);
  }
  return values;
}

bool BagLosses::AddMetadata(const std::vector<std::pair<std::string, std::string>>& values) {
  bool ok = true;
  for (const auto& [topic, value] : values) {
    std::istringstream words(value);
    std::string word;
    while (words >> word) {
      const size_t eq = word.find('=');
      const std::string digits = eq == std::string::npos ? "" : word.substr(eq + 1);
      char* end = nullptr;
      const unsigned long long n = std::strtoull(digits.c_str(), &end, 10);
      if (digits.empty() || *end != '\0' || digits[0] == '-' || digits[0] == '+') {
        ok = false;
        continue;
      }
      BagLossReason reason;
      if (BagLossReasonFromName(word.substr(0, eq), &reason)) Add(topic, reason, n);
    }
  }
  return ok;
}

void BagLossLedger::Add(const std::string& topic, BagLossReason reason, uint64_t count) {
  std::lock_guard<std::mutex> lock(mu_);
  total_.Add(topic, reason, count);
  unfiled_.Add(topic, reason, count);
}

BagLosses BagLossLedger::Total() const {
  std::lock_guard<std::mutex> lock(mu_);
  return total_;
}

BagLosses BagLossLedger::TakeUnfiled() {
  std::lock_guard<std::mutex> lock(mu_);
  BagLosses taken;
  std::swap(taken, unfiled_);
  return taken;
}

void BagLossLedger::ReturnUnfiled(const BagLosses& losses) {
  std::lock_guard<std::mutex> lock(mu_);
  unfiled_.Add(losses);
}

}  // namespace kelo
