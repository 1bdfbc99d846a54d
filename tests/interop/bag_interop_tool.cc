// The C++ half of the interoperability check with an independent MCAP implementation.
//
//   bag_interop_tool write <dir>             writes bags (one per compression) and, beside
//                                            each, <bag>.expected.json with what it holds
//   bag_interop_tool read <file> <expected>  reads a file written by the other
//                                            implementation and compares it with the JSON
//                                            that implementation wrote
// Exits non-zero, saying why on stderr, when anything differs.

#include <json/json.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "platform/bag/bag_reader.h"
#include "platform/bag/bag_writer.h"

namespace {

std::string Hex(const std::string& bytes) {
  static const char* digits = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    out.push_back(digits[c >> 4]);
    out.push_back(digits[c & 15]);
  }
  return out;
}

std::string Payload(size_t size, unsigned seed) {
  std::string s(size, '\0');
  unsigned x = seed;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1103515245u + 12345u;
    s[i] = static_cast<char>(i % 4 == 0 ? (x >> 16) : i % 7);
  }
  return s;
}

struct Written {
  std::string topic, type, data;
  long time, record_time;
};

int Write(const std::string& dir) {
  struct Variant {
    const char* name;
    kelo::BagCompression compression;
  };
  const Variant variants[] = {{"zstd", kelo::BagCompression::kZstd},
                              {"lz4", kelo::BagCompression::kLz4},
                              {"none", kelo::BagCompression::kNone}};
  for (const Variant& v : variants) {
    std::vector<Written> messages;
    const size_t sizes[] = {0, 1, 100, 10 * 1024, 1 << 20, 3, 200};
    long t = 1700000000000;
    unsigned seed = 7;
    for (int round = 0; round < 40; ++round) {
      for (size_t size : sizes) {
        if (size > 1000 && round % 10 != 0) size = 50;
        messages.push_back({"/camera", "kelo.Image", Payload(size, seed++), t, t + 2});
        messages.push_back({"/imu", round < 20 ? "kelo.ImuV1" : "kelo.ImuV2",
                            Payload(size % 300, seed++), t, t + 1});
        t += 3;
      }
      messages.push_back({"/late", "kelo.Late", "back in time", t - 50, t});
    }
    kelo::BagWriterOptions options;
    options.compression = v.compression;
    options.chunk_size = 256 * 1024;
    kelo::BagWriter writer(kelo::fileio::FilePath(dir + "/" + v.name + ".kelobag.active"), options);
    writer.open("");
    writer.append_topic("/declared", "kelo.Declared");
    for (const Written& m : messages) {
      writer.append_message(m.time, m.record_time, m.topic, m.data, m.type);
    }
    const std::string name = writer.close();
    if (name.empty()) {
      std::fprintf(stderr, "could not write %s\n", v.name);
      return 1;
    }
    Json::Value root;
    root["file"] = name;
    root["compression"] = v.name;
    Json::Value& list = root["messages"];
    list = Json::Value(Json::arrayValue);
    for (const Written& m : messages) {
      Json::Value e;
      e["topic"] = m.topic;
      e["type"] = m.type;
      e["log_time"] = std::to_string(m.time * 1000000L);
      e["publish_time"] = std::to_string(m.record_time * 1000000L);
      e["data"] = Hex(m.data);
      list.append(e);
    }
    Json::Value& topics = root["topics"];
    topics = Json::Value(Json::arrayValue);
    for (const char* topic : {"/declared", "/camera", "/imu", "/late"}) topics.append(topic);
    std::ofstream out(name + ".expected.json");
    out << Json::writeString(Json::StreamWriterBuilder(), root);
  }
  return 0;
}

int Read(const std::string& path, const std::string& expected_path) {
  Json::Value root;
  std::ifstream in(expected_path);
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) {
    std::fprintf(stderr, "%s: %s\n", expected_path.c_str(), errors.c_str());
    return 1;
  }
  struct Want {
    std::string topic, type, data;
    unsigned long long log_time, publish_time;
  };
  std::vector<Want> want;
  for (const Json::Value& m : root["messages"]) {
    want.push_back({m["topic"].asString(), m["type"].asString(), m["data"].asString(),
                    std::stoull(m["log_time"].asString()), std::stoull(m["publish_time"].asString())});
  }
  std::stable_sort(want.begin(), want.end(),
                   [](const Want& a, const Want& b) { return a.log_time < b.log_time; });
  kelo::BagReader reader(path);
  if (!reader.get_error().empty()) {
    std::fprintf(stderr, "%s\n", reader.get_error().c_str());
    return 1;
  }
  if (reader.count() != want.size()) {
    std::fprintf(stderr, "%s: %u messages, expected %zu\n", path.c_str(), reader.count(), want.size());
    return 1;
  }
  size_t i = 0;
  for (reader.seek(0); !reader.eof(); reader.next(), ++i) {
    auto m = reader.read();
    const Want& w = want[i];
    if (m->topic != w.topic || m->type != w.type || Hex(m->data) != w.data ||
        m->time != static_cast<long>(w.log_time / 1000000) ||
        m->record_time != static_cast<long>(w.publish_time / 1000000)) {
      std::fprintf(stderr, "%s: message %zu differs: got %s %s at %ld\n", path.c_str(), i,
                   m->topic.c_str(), m->type.c_str(), m->time);
      return 1;
    }
  }
  std::vector<std::string> topics;
  for (const auto& t : reader.topics()) topics.push_back(t->name + " " + t->type);
  std::sort(topics.begin(), topics.end());
  std::vector<std::string> want_topics;
  for (const Json::Value& t : root["topics"]) want_topics.push_back(t.asString());
  std::sort(want_topics.begin(), want_topics.end());
  if (topics != want_topics) {
    std::fprintf(stderr, "%s: topics differ\n", path.c_str());
    return 1;
  }
  std::printf("read %s: %u messages as expected\n", path.c_str(), reader.count());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "write" && argc == 3) return Write(argv[2]);
  if (mode == "read" && argc == 4) return Read(argv[2], argv[3]);
  std::fprintf(stderr, "usage: %s write <dir> | read <file> <expected.json>\n", argv[0]);
  return 2;
}
