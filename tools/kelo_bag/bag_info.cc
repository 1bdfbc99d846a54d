#include "tools/kelo_bag/bag_info.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <utility>

#include "platform/bag/bag_reader.h"
#include "platform/bag/bag_writer_options.h"
#include "tools/kelo_bag/format_units.h"

namespace kelo {
namespace cli {

namespace {

// Adds `kinds` ("a+b") to `into`, keeping the order of first appearance.
void JoinKinds(const std::string& kinds, std::string* into) {
  size_t at = 0;
  while (at < kinds.size()) {
    size_t end = kinds.find('+', at);
    if (end == std::string::npos) end = kinds.size();
    const std::string kind = kinds.substr(at, end - at);
    const std::string padded = "+" + *into + "+";
    if (!kind.empty() && padded.find("+" + kind + "+") == std::string::npos) {
      *into += (into->empty() ? "" : "+") + kind;
    }
    at = end + 1;
  }
}

}  // namespace

std::string UnreadableText(const BagSummary& s) {
  std::string text;
  if (s.damaged_chunks > 0) {
    text = std::to_string(s.damaged_chunks) + (s.damaged_chunks == 1 ? " chunk" : " chunks") + " (" +
           (s.messages_unknown ? "at least " : "") + std::to_string(s.lost_messages) + " messages)";
  } else if (s.lost_messages > 0) {  // on channels the file never declared
    text = std::to_string(s.lost_messages) + " messages";
  }
  if (s.unread_bytes > 0) text += (text.empty() ? "" : " and ") + std::to_string(s.unread_bytes) + " bytes";
  return text.empty() ? "" : text + " could not be read";
}

double BagSummary::Topic::frequency() const {
  if (messages < 2 || last_ms <= first_ms) return 0.0;
  return static_cast<double>(messages - 1) / ((last_ms - first_ms) * 0.001);
}

bool SummarizeBag(const std::string& path, bool verify, BagSummary* summary, std::string* error) {
  BagReader reader(path, !verify);  // the summary tells all but what --verify checks
  const BagFileInfo info = reader.file_info();
  const std::string reader_error = reader.get_error();
  if (!reader_error.empty() && !info.recovered) {
    *error = reader_error;
    return false;
  }
  BagSummary s;
  s.path = path;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) s.size_bytes = static_cast<uint64_t>(st.st_size);
  s.compression = info.compression;
  s.chunks = info.chunks;

  std::map<std::pair<std::string, std::string>, BagSummary::Topic> topics;
  for (const auto& topic : reader.topics()) {
    BagSummary::Topic& row = topics[{topic->name, topic->type}];
    row.name = topic->name;
    row.type = topic->type;
    if (verify) continue;  // counted from the messages below
    row.messages = topic->messages;
    row.first_ms = topic->first_time;
    row.last_ms = topic->last_time;
  }
  if (verify) {
    bool first = true;
    for (reader.seek(0); !reader.eof(); reader.next()) {
      std::shared_ptr<BagMessage> m = reader.read();
      if (m == nullptr) break;
      BagSummary::Topic& row = topics[{m->topic, m->type}];
      if (row.messages == 0) row.first_ms = m->time;
      ++row.messages;
      row.last_ms = m->time;
      if (first) s.start_ms = m->time;
      s.end_ms = m->time;
      first = false;
      ++s.messages;
    }
  } else {
    s.messages = reader.count();
    s.start_ms = reader.start_time();
    s.end_ms = reader.end_time();
  }
  for (auto& entry : topics) s.topics.push_back(std::move(entry.second));
  // Reading may find damage the summary did not show.
  const BagFileInfo after = reader.file_info();
  s.recovered = after.recovered;
  if (s.recovered) s.note = reader.get_error();
  s.damaged_chunks = after.damaged_chunks;
  s.lost_messages = after.lost_messages;
  s.messages_unknown = after.messages_unknown;
  s.unread_bytes = after.unread_bytes;
  s.partial = after.damaged || after.unread_bytes > 0;
  for (const BagMetadata& m : reader.metadata()) {
    if (m.name == BagLosses::kMetadataName) s.losses.AddMetadata(m.values);
    if (m.name == BagWriterOptions::kRecordingMetadataName) s.recording = m.values;
  }
  *summary = std::move(s);
  return true;
}

BagSummary MergeSummaries(const std::vector<BagSummary>& summaries) {
  BagSummary merged;
  merged.files = 0;
  std::map<std::pair<std::string, std::string>, BagSummary::Topic> topics;
  bool any_message = false;
  for (const BagSummary& s : summaries) {
    merged.files += s.files;
    merged.size_bytes += s.size_bytes;
    merged.messages += s.messages;
    merged.chunks += s.chunks;
    merged.recovered = merged.recovered || s.recovered;
    merged.partial = merged.partial || s.partial;
    merged.damaged_chunks += s.damaged_chunks;
    merged.lost_messages += s.lost_messages;
    merged.messages_unknown = merged.messages_unknown || s.messages_unknown;
    merged.unread_bytes += s.unread_bytes;
    merged.losses.Add(s.losses);
    JoinKinds(s.compression, &merged.compression);
    if (s.messages > 0) {
      merged.start_ms = any_message ? std::min(merged.start_ms, s.start_ms) : s.start_ms;
      merged.end_ms = any_message ? std::max(merged.end_ms, s.end_ms) : s.end_ms;
      any_message = true;
    }
    for (const BagSummary::Topic& t : s.topics) {
      BagSummary::Topic& row = topics[{t.name, t.type}];
      if (t.messages > 0) {
        row.first_ms = row.messages > 0 ? std::min(row.first_ms, t.first_ms) : t.first_ms;
        row.last_ms = row.messages > 0 ? std::max(row.last_ms, t.last_ms) : t.last_ms;
      }
      row.name = t.name;
      row.type = t.type;
      row.messages += t.messages;
    }
  }
  for (auto& entry : topics) merged.topics.push_back(std::move(entry.second));
  return merged;
}

std::string FormatSummary(const BagSummary& s) {
  std::string out;
  if (s.path.empty()) {
    out += "all " + std::to_string(s.files) + " files\n";
  } else {
    out += "path:        " + s.path + "\n";
  }
  out += "size:        " + FormatBytes(static_cast<double>(s.size_bytes)) + " (" +
         std::to_string(s.size_bytes) + " bytes)\n";
  if (s.messages > 0) {
    out += "start:       " + FormatLocalTime(s.start_ms) + " (" + std::to_string(s.start_ms) + " ms)\n";
    out += "end:         " + FormatLocalTime(s.end_ms) + " (" + std::to_string(s.end_ms) + " ms)\n";
    out += "duration:    " + FormatFixed(s.duration_s(), 3) + " s\n";
  }
  out += "messages:    " + std::to_string(s.messages) + "\n";
  out += "compression: " + (s.compression.empty() ? std::string("-") : s.compression) + "\n";
  out += "chunks:      " + std::to_string(s.chunks) + "\n";
  out += "recovered:   " + std::string(s.recovered ? "yes" : "no") + "\n";
  if (!s.note.empty()) out += "note:        " + s.note + "\n";
  if (s.partial) out += "unreadable:  " + UnreadableText(s) + "\n";
  out += "lost:        " + std::to_string(s.losses.total()) +
         (s.losses.empty() ? "" : " (" + s.losses.Describe() + ")") + "\n";
  for (const auto& [key, value] : s.recording) out += PadRight(key + ":", 12) + " " + value + "\n";
  size_t name_width = 5, type_width = 4;
  for (const BagSummary::Topic& t : s.topics) {
    name_width = std::max(name_width, t.name.size());
    type_width = std::max(type_width, t.type.size());
  }
  out += "topics:      " + std::to_string(s.topics.size()) + "\n";
  if (!s.topics.empty()) {
    out += "  " + PadRight("topic", name_width) + "  " + PadRight("type", type_width) +
           PadLeft("messages", 10) + PadLeft("frequency", 14) + "\n";
  }
  for (const BagSummary::Topic& t : s.topics) {
    out += "  " + PadRight(t.name, name_width) + "  " + PadRight(t.type, type_width) +
           PadLeft(std::to_string(t.messages), 10) + PadLeft(FormatFixed(t.frequency(), 2) + " Hz", 14) +
           "\n";
  }
  return out;
}

Json::Value SummaryJson(const BagSummary& s) {
  Json::Value v(Json::objectValue);
  if (!s.path.empty()) v["path"] = s.path;
  v["files"] = static_cast<Json::UInt64>(s.files);
  v["size_bytes"] = static_cast<Json::UInt64>(s.size_bytes);
  v["start_ms"] = static_cast<Json::Int64>(s.start_ms);
  v["end_ms"] = static_cast<Json::Int64>(s.end_ms);
  v["start"] = s.messages > 0 ? FormatLocalTime(s.start_ms) : "";
  v["end"] = s.messages > 0 ? FormatLocalTime(s.end_ms) : "";
  v["duration_s"] = s.duration_s();
  v["messages"] = static_cast<Json::UInt64>(s.messages);
  v["compression"] = s.compression;
  v["chunks"] = s.chunks;
  v["recovered"] = s.recovered;
  v["note"] = s.note;
  Json::Value& unreadable = v["unreadable"] = Json::Value(Json::objectValue);
  unreadable["chunks"] = s.damaged_chunks;
  unreadable["messages"] = static_cast<Json::UInt64>(s.lost_messages);
  unreadable["messages_unknown"] = s.messages_unknown;
  unreadable["bytes"] = static_cast<Json::UInt64>(s.unread_bytes);
  v["lost"] = static_cast<Json::UInt64>(s.losses.total());
  Json::Value& losses = v["losses"] = Json::Value(Json::objectValue);
  for (const auto& [topic, counts] : s.losses.by_topic()) {
    Json::Value& row = losses[topic] = Json::Value(Json::objectValue);
    for (int i = 0; i < kBagLossReasons; ++i) {
      if (counts[i] > 0)
        row[BagLossReasonName(static_cast<BagLossReason>(i))] = static_cast<Json::UInt64>(counts[i]);
    }
  }
  if (!s.path.empty()) {
    Json::Value& recording = v["recording"] = Json::Value(Json::objectValue);
    for (const auto& [key, value] : s.recording) recording[key] = value;
  }
  Json::Value& topics = v["topics"] = Json::Value(Json::arrayValue);
  for (const BagSummary::Topic& t : s.topics) {
    Json::Value row(Json::objectValue);
    row["topic"] = t.name;
    row["type"] = t.type;
    row["messages"] = static_cast<Json::UInt64>(t.messages);
    row["frequency_hz"] = t.frequency();
    topics.append(row);
  }
  return v;
}

}  // namespace cli
}  // namespace kelo
