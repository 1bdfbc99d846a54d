// Bag library benchmarks: write throughput against a plain sequential write of the same
// bytes to the same disk, and open, seek and read speed of a large bag. Ends with a table
// of ratios, all measured in this one run.
//
//   bench_bag [--bench_dir=DIR] [google benchmark flags]
// DIR (default: the current directory) should be on the disk whose speed matters.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/bag/bag_reader.h"
#include "platform/bag/bag_writer.h"

namespace {

std::string g_dir = ".";

const char* CompressionName(int c) {
  switch (static_cast<kelo::BagCompression>(c)) {
    case kelo::BagCompression::kZstd:
      return "zstd";
    case kelo::BagCompression::kLz4:
      return "lz4";
    default:
      return "none";
  }
}

// Payloads like sampled sensor data: a slow random walk of 16-bit values. zstd level 1
// halves them, lz4 takes off about a third.
std::string Payload(size_t size, unsigned seed) {
  std::string s(size, '\0');
  unsigned x = seed * 2654435761u + 1;
  int v = static_cast<int>(seed % 1000);
  for (size_t i = 0; i + 1 < size; i += 2) {
    x = x * 1103515245u + 12345u;
    v += static_cast<int>((x >> 16) % 7) - 3;
    s[i] = static_cast<char>(v & 0xFF);
    s[i + 1] = static_cast<char>((v >> 8) & 0xFF);
  }
  return s;
}

// Enough messages of a size for about 192 MB of payload (at least 1M small ones).
size_t MessagesFor(size_t size) { return size <= 100 ? 2000000 : (192u << 20) / size; }

std::vector<std::string> Payloads(size_t size) {
  std::vector<std::string> out;
  for (unsigned i = 0; i < 16; ++i) out.push_back(Payload(size, i));
  return out;
}

// The disk's speed for the same bytes: written in 1 MB blocks, then synced, as the bag
// writer syncs a file before completing it.
void BM_PlainWrite(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  const size_t count = MessagesFor(size);
  const std::vector<std::string> payloads = Payloads(size);
  const std::string path = g_dir + "/bench_plain.bin";
  std::string block;
  block.reserve(1 << 20);
  for (auto _ : state) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (size_t i = 0; i < count; ++i) {
      block.append(payloads[i % payloads.size()]);
      if (block.size() >= (1u << 20)) {
        if (::write(fd, block.data(), block.size()) < 0) state.SkipWithError("write failed");
        block.clear();
      }
    }
    if (!block.empty() && ::write(fd, block.data(), block.size()) < 0) state.SkipWithError("write");
    block.clear();
    ::fsync(fd);
    ::close(fd);
    state.PauseTiming();
    ::unlink(path.c_str());
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * count * size));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * count));
}

void BM_BagWrite(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  const size_t count = MessagesFor(size);
  const std::vector<std::string> payloads = Payloads(size);
  kelo::BagWriterOptions options;
  options.compression = static_cast<kelo::BagCompression>(state.range(1));
  const std::string topic = "/bench/topic", type = "kelo.Bench";
  double file_bytes = 0;
  for (auto _ : state) {
    std::string name;
    {
      kelo::BagWriter writer(kelo::fileio::FilePath(g_dir + "/bench_write.kelobag.active"), options);
      writer.open("");
      for (size_t i = 0; i < count; ++i) {
        const long t = 1700000000000L + static_cast<long>(i / 100);
        writer.append_message(t, t, topic, payloads[i % payloads.size()], type);
      }
      name = writer.close();
    }
    state.PauseTiming();
    struct stat st;
    if (::stat(name.c_str(), &st) == 0) file_bytes = static_cast<double>(st.st_size);
    ::unlink(name.c_str());
    state.ResumeTiming();
  }
  state.counters["file_per_payload"] = file_bytes / static_cast<double>(count * size);
  state.SetLabel(CompressionName(static_cast<int>(state.range(1))));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * count * size));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * count));
}

// How long one append_message can hold up the caller: with compression off the caller's
// thread, the worst case should match the uncompressed writer's (both only wait for the
// disk when it falls behind).
void BM_AppendLatency(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  const size_t count = std::min<size_t>(MessagesFor(size), 500000);
  const std::vector<std::string> payloads = Payloads(size);
  kelo::BagWriterOptions options;
  options.compression = static_cast<kelo::BagCompression>(state.range(1));
  std::vector<double> micros(count);
  for (auto _ : state) {
    kelo::BagWriter writer(kelo::fileio::FilePath(g_dir + "/bench_latency.kelobag.active"), options);
    writer.open("");
    for (size_t i = 0; i < count; ++i) {
      const auto t0 = std::chrono::steady_clock::now();
      writer.append_message(1700000000000L, 1700000000000L, "/t", payloads[i % payloads.size()], "T");
      micros[i] = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
    }
    state.PauseTiming();
    ::unlink(writer.close().c_str());
    state.ResumeTiming();
  }
  std::sort(micros.begin(), micros.end());
  state.counters["p99_us"] = micros[count * 99 / 100];
  state.counters["p9999_us"] = micros[count * 9999 / 10000];
  state.counters["max_us"] = micros.back();
  state.SetLabel(CompressionName(static_cast<int>(state.range(1))));
}

constexpr size_t kReadMessages = 1000000;

std::string ReadBag(int compression) {
  static std::map<int, std::string> made;
  auto it = made.find(compression);
  if (it != made.end()) return it->second;
  kelo::BagWriterOptions options;
  options.compression = static_cast<kelo::BagCompression>(compression);
  kelo::BagWriter writer(
      kelo::fileio::FilePath(g_dir + "/bench_read_" + CompressionName(compression) + ".kelobag.active"),
      options);
  writer.open("");
  const std::vector<std::string> payloads = Payloads(100);
  for (size_t i = 0; i < kReadMessages; ++i) {
    const long t = 1700000000000L + static_cast<long>(i / 10);
    writer.append_message(t, t, i % 4 ? "/bench/a" : "/bench/b", payloads[i % payloads.size()], "kelo.Bench");
  }
  return made[compression] = writer.close();
}

void BM_OpenAndSeekMiddle(benchmark::State& state) {
  const std::string path = ReadBag(static_cast<int>(state.range(0)));
  size_t index_bytes = 0;
  for (auto _ : state) {
    const size_t before = mallinfo2().uordblks;
    kelo::BagReader reader(path);
    index_bytes = mallinfo2().uordblks - before;
    reader.seek(reader.count() / 2);
    benchmark::DoNotOptimize(reader.read());
  }
  state.SetLabel(CompressionName(static_cast<int>(state.range(0))));
  state.counters["index_bytes_per_message"] =
      static_cast<double>(index_bytes) / static_cast<double>(kReadMessages);
}

void BM_ReadAll(benchmark::State& state) {
  const std::string path = ReadBag(static_cast<int>(state.range(0)));
  size_t messages = 0;
  for (auto _ : state) {
    kelo::BagReader reader(path);
    for (; !reader.eof(); reader.next()) {
      benchmark::DoNotOptimize(reader.read());
      ++messages;
    }
  }
  state.SetLabel(CompressionName(static_cast<int>(state.range(0))));
  state.SetItemsProcessed(static_cast<int64_t>(messages));
}

// Light traffic, paced: 100 B messages at range(0) per second for 5 s, chunks closed after
// range(1) ms. Reports the file's size per payload byte: the price of losing at most that
// long when the recorder is killed.
void BM_LightTraffic(benchmark::State& state) {
  const long rate = state.range(0);
  kelo::BagWriterOptions options;
  options.chunk_duration_ms = state.range(1);
  const std::string path = g_dir + "/bench_light.kelobag";
  const std::string payload = Payload(100, 7);
  const long count = rate * 5;
  for (auto _ : state) {
    ::unlink(path.c_str());
    kelo::BagWriter writer(kelo::fileio::FilePath(path + ".active"), options);
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < count; ++i) {
      std::this_thread::sleep_until(start + std::chrono::microseconds(i * 1000000 / rate));
      writer.append_message(1700000000000 + i, 1700000000000 + i, "/light", payload, "bench.Light");
    }
    writer.close();
  }
  struct stat st;
  ::stat(path.c_str(), &st);
  state.counters["file_per_payload"] = static_cast<double>(st.st_size) / (count * payload.size());
  ::unlink(path.c_str());
}

BENCHMARK(BM_PlainWrite)
    ->Arg(100)
    ->Arg(10 << 10)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK(BM_BagWrite)
    ->ArgsProduct({{100, 10 << 10, 1 << 20}, {0, 1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();
BENCHMARK(BM_AppendLatency)
    ->ArgsProduct({{100, 1 << 20}, {0, 1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->UseRealTime();
BENCHMARK(BM_OpenAndSeekMiddle)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_ReadAll)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_LightTraffic)
    ->ArgsProduct({{10, 100, 1000}, {70, 100, 1000}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->UseRealTime();

// Keeps every run's figures for the ratio table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const std::string name = run.benchmark_name();
      bytes_[name] = run.counters.count("bytes_per_second") ? run.counters.at("bytes_per_second").value : 0;
      items_[name] = run.counters.count("items_per_second") ? run.counters.at("items_per_second").value : 0;
      ms_[name] = run.GetAdjustedRealTime();
      for (const char* c : {"file_per_payload", "p99_us", "p9999_us", "max_us"}) {
        if (run.counters.count(c)) extra_[name + "|" + c] = run.counters.at(c).value;
      }
      if (run.counters.count("index_bytes_per_message")) {
        index_[name] = run.counters.at("index_bytes_per_message").value;
      }
    }
  }

  void PrintRatios() const {
    std::printf("\nBag write throughput / plain write of the same bytes (same disk, same run):\n");
    const char* sizes[] = {"100", "10240", "1048576"};
    for (const char* size : sizes) {
      const double plain = Get(bytes_, "BM_PlainWrite/" + std::string(size) + "/iterations:3/real_time");
      for (int c = 0; c < 3; ++c) {
        const std::string name =
            "BM_BagWrite/" + std::string(size) + "/" + std::to_string(c) + "/iterations:3/real_time";
        std::printf("  %8s B %-5s  %5.2f   (%.2f M messages/s, file %.2f of payload)\n", size,
                    CompressionName(c), plain > 0 ? Get(bytes_, name) / plain : 0.0, Get(items_, name) / 1e6,
                    Get(extra_, name + "|file_per_payload"));
      }
    }
    std::printf("append_message latency, compressed / uncompressed (p99, p99.99, max):\n");
    for (const char* size : {"100", "1048576"}) {
      const std::string none = "BM_AppendLatency/" + std::string(size) + "/0/iterations:1/real_time";
      for (int c = 1; c < 3; ++c) {
        const std::string name =
            "BM_AppendLatency/" + std::string(size) + "/" + std::to_string(c) + "/iterations:1/real_time";
        std::printf("  %8s B %-5s", size, CompressionName(c));
        for (const char* q : {"p99_us", "p9999_us", "max_us"}) {
          const double base = Get(extra_, none + "|" + q);
          std::printf("  %5.2f (%.0f/%.0f us)", base > 0 ? Get(extra_, name + "|" + q) / base : 0.0,
                      Get(extra_, name + "|" + q), base);
        }
        std::printf("\n");
      }
    }
    std::printf(
        "Light traffic, 100 B messages: file size per payload byte, chunks closed after 70 ms / 100 ms / 1 s:\n");
    for (const char* rate : {"10", "100", "1000"}) {
      const std::string base = "BM_LightTraffic/" + std::string(rate) + "/";
      auto size = [&](const char* ms) { return Get(extra_, base + ms + "/iterations:1/real_time|file_per_payload"); };
      const double slow = size("1000");
      std::printf("  %5s msg/s  %.2f / %.2f / %.2f (70 ms / 1 s = %.2f)\n", rate, size("70"), size("100"), slow,
                  slow > 0 ? size("70") / slow : 0.0);
    }
    std::printf("Large bag (%zu x 100 B):\n", kReadMessages);
    for (int c = 0; c < 2; ++c) {
      const std::string open = "BM_OpenAndSeekMiddle/" + std::to_string(c) + "/iterations:5";
      const std::string read = "BM_ReadAll/" + std::to_string(c) + "/iterations:3";
      std::printf(
          "  %-5s open+seek middle %.1f ms (/100 ms = %.2f), index %.1f B/message "
          "(/24 = %.2f), read %.2f M messages/s (/5 M = %.2f)\n",
          CompressionName(c), Get(ms_, open), Get(ms_, open) / 100.0, Get(index_, open),
          Get(index_, open) / 24.0, Get(items_, read) / 1e6, Get(items_, read) / 5e6);
    }
  }

 private:
  static double Get(const std::map<std::string, double>& m, const std::string& key) {
    auto it = m.find(key);
    return it == m.end() ? 0 : it->second;
  }
  std::map<std::string, double> bytes_, items_, ms_, index_, extra_;
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--bench_dir=", 12) == 0) {
      g_dir = argv[i] + 12;
    } else {
      args.push_back(argv[i]);
    }
  }
  int n = static_cast<int>(args.size());
  benchmark::Initialize(&n, args.data());
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  for (int c = 0; c < 2; ++c) {
    ::unlink((g_dir + "/bench_read_" + CompressionName(c) + ".kelobag").c_str());
  }
  benchmark::Shutdown();
  return 0;
}
