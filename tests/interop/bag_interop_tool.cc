// The C++ half of the interoperability check with an independent MCAP implementation:
//   bag_interop_tool write <dir>   writes bags (one per compression) and, beside each,
//                                  <bag>.expected.json with what it holds
// (Files of other writers are read by mcap_conformance_test.)

#include <json/json.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "platform/bag/bag_writer.h"

namespace {

std::string Hex(const std::string& bytes) {
  std::string out;
  for (unsigned char c : bytes) out += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
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

struct Written { std::string topic, type, data; long time, record_time; };

int Write(const std::string& dir) {
  for (const auto& [name, compression] : std::vector<std::pair<std::string, kelo::BagCompression>>{
           {"zstd", kelo::BagCompression::kZstd}, {"lz4", kelo::BagCompression::kLz4},
           {"none", kelo::BagCompression::kNone}}) {
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
    options.compression = compression;
    options.chunk_size = 256 * 1024;
    kelo::BagWriter writer(kelo::fileio::FilePath(dir + "/" + name + ".kelobag.active"), options);
    writer.open("");
    writer.append_topic("/declared", "kelo.Declared");
    for (const Written& m : messages) writer.append_message(m.time, m.record_time, m.topic, m.data, m.type);
    const std::string path = writer.close();
    if (path.empty()) {
      std::fprintf(stderr, "could not write %s\n", name.c_str());
      return 1;
    }
    Json::Value root;
    root["compression"] = name;
    for (const Written& m : messages) {
      Json::Value e;
      e["topic"] = m.topic;
      e["type"] = m.type;
      e["log_time"] = std::to_string(m.time * 1000000L);
      e["publish_time"] = std::to_string(m.record_time * 1000000L);
      e["data"] = Hex(m.data);
      root["messages"].append(e);
    }
    std::ofstream(path + ".expected.json") << Json::writeString(Json::StreamWriterBuilder(), root);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "write" && argc == 3) return Write(argv[2]);
  std::fprintf(stderr, "usage: %s write <dir>\n", argv[0]);
  return 2;
}
