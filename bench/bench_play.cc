// Player benchmarks, printed as tables with ratios to their targets:
//   pacing  - delivery time minus due time over 20 s bags with a message every 1 ms and
//             every 10 ms (median, p99, max; targets: median < 50 us, p99 < 250 us);
//   merge   - BagView::pop_message throughput over 1, 4 and 16 bags of 100 B messages
//             (target: at least 2 million messages per second with 4 bags).
//
//   bench_play [pacing|merge] [--bench_dir=DIR] [--seconds=N]
//
// With no mode both run. DIR (default: TMPDIR or /tmp) receives the scratch bags.
// A batch is due at the wall-clock millisecond the player took as the start of playback
// plus the batch's offset in the bag; the benchmark starts playback early in a millisecond
// so that it knows that millisecond exactly, and stamps each delivery in the message
// callback with the same clock. The timeline callback is a no-op, so console output is
// not part of the figures.

#include <stdlib.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/bag/bag_reader.h"
#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "play/bag_play.h"
#include "play/bag_view.h"

namespace {

std::string g_dir;
long g_seconds = 20;

int64_t RealtimeNanos() {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The player's own reading of the wall clock.
int64_t WallMs() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int64_t>(static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000.0);
}

std::string Payload(size_t size, unsigned seed) {
  std::string s(size, '\0');
  unsigned x = seed * 2654435761u + 1;
  for (size_t i = 0; i < size; ++i) {
    x = x * 1103515245u + 12345u;
    s[i] = static_cast<char>(x >> 24);
  }
  return s;
}

// Writes "<dir>/<name>.kelobag" with one 100-byte message at each of `times`.
std::string WriteBag(const std::string& name, const std::vector<long>& times, const std::string& topic) {
  kelo::BagWriter writer(kelo::fileio::FilePath(g_dir + "/" + name + ".kelobag.active"));
  writer.open("");
  writer.append_topic(topic, "bench.Raw");
  unsigned seed = 1;
  for (long t : times) writer.append_message(t, t, topic, Payload(100, seed++), "bench.Raw");
  return writer.close();
}

struct Stats {
  double median_us, p99_us, max_us, min_us;
};

Stats Summarize(std::vector<int64_t> errors_ns) {
  std::sort(errors_ns.begin(), errors_ns.end());
  const size_t n = errors_ns.size();
  auto at = [&](double q) {
    return errors_ns[std::min(n - 1, static_cast<size_t>(q * (n - 1) + 0.5))] / 1000.0;
  };
  return Stats{at(0.5), at(0.99), errors_ns.back() / 1000.0, errors_ns.front() / 1000.0};
}

double CpuSeconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Plays a bag with a message every `period_ms` for g_seconds; returns the pacing errors
// and sets `cpu_share` to the CPU time the playback took over its wall time.
std::vector<int64_t> MeasurePacing(long period_ms, double* cpu_share) {
  std::vector<long> times;
  const long first = 1700000000000;  // a realistic epoch-based bag time
  for (long t = 0; t <= g_seconds * 1000; t += period_ms) times.push_back(first + t);
  const std::string path = WriteBag("pacing_" + std::to_string(period_ms) + "ms", times, "/pace");

  kelo::BagPlay play(path);
  std::vector<int64_t> delivered;
  delivered.reserve(times.size());
  play.SetMessageCallback([&delivered](long, const std::string&, const std::string&, const std::string&) {
    delivered.push_back(RealtimeNanos());
  });
  play.SetTimelineInfoCallback([](bool, long, double, double) {});

  // Start playback in the first tenth of a millisecond, and make sure the millisecond did
  // not change while ControlPlay ran, so the player's start time is known exactly: its
  // clock starts as the next millisecond begins.
  int64_t start_ms = 0;
  for (;;) {
    while (RealtimeNanos() % 1000000 > 100000) {
    }
    start_ms = WallMs();
    play.ControlPlay(0, 0);
    if (WallMs() == start_ms) break;
    play.ControlPause(true);
  }
  const double cpu_before = CpuSeconds();
  const int64_t wall_before = RealtimeNanos();
  while (play.NotifyTimeline() == kelo::BagPlay::kPlayed) {
  }
  *cpu_share = (CpuSeconds() - cpu_before) / ((RealtimeNanos() - wall_before) / 1e9);

  std::vector<int64_t> errors;
  for (size_t i = 0; i < delivered.size() && i < times.size(); ++i) {
    const int64_t due_ns = (start_ms + 1 + (times[i] - first)) * 1000000;
    errors.push_back(delivered[i] - due_ns);
  }
  std::remove(path.c_str());
  return errors;
}

void RunPacing() {
  std::printf("\nPacing error, delivery minus due time (%ld s bags)\n", g_seconds);
  std::printf("%-10s %9s %11s %11s %11s %7s %6s %13s %10s\n", "period", "messages", "median_us", "p99_us",
              "max_us", "early", "cpu", "median/50us", "p99/250us");
  for (long period : {1L, 10L}) {
    double cpu_share = 0.0;
    const std::vector<int64_t> errors = MeasurePacing(period, &cpu_share);
    const Stats s = Summarize(errors);
    const long early = std::count_if(errors.begin(), errors.end(), [](int64_t e) { return e < 0; });
    std::printf("%-10s %9zu %11.1f %11.1f %11.1f %7ld %5.1f%% %13.2f %10.2f\n",
                (std::to_string(period) + " ms").c_str(), errors.size(), s.median_us, s.p99_us, s.max_us,
                early, cpu_share * 100.0, s.median_us / 50.0, s.p99_us / 250.0);
  }
}

void RunMerge() {
  constexpr long kMessages = 1000000;
  std::printf("\nBagView::pop_message, %ld messages of 100 B in total\n", kMessages);
  std::printf("%-6s %14s %12s %14s\n", "bags", "messages/s", "ns/message", "vs 2M/s");
  for (int bags : {1, 4, 16}) {
    std::vector<std::string> paths;
    std::vector<std::unique_ptr<kelo::BagReader>> readers;
    kelo::BagView view;
    for (int b = 0; b < bags; ++b) {
      // Interleaved timelines with some ties, as recordings of one session are.
      std::vector<long> times;
      for (long i = 0; i < kMessages / bags; ++i) times.push_back(1000 + (i * bags + b) / 2);
      paths.push_back(WriteBag("merge_" + std::to_string(bags) + "_" + std::to_string(b), times,
                               "/topic" + std::to_string(b)));
      readers.emplace_back(new kelo::BagReader(paths.back()));
      view.append_bag(readers.back().get());
    }
    view.set_time_ms(0, 0);
    double best = 0.0;
    for (int round = 0; round < 3; ++round) {
      view.reset_message();
      long count = 0;
      const auto begin = std::chrono::steady_clock::now();
      while (view.pop_message()) ++count;
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
      if (count != kMessages / bags * bags) std::printf("  (drained %ld messages)\n", count);
      best = std::max(best, count / seconds);
    }
    std::printf("%-6d %14.0f %12.1f %14.2f\n", bags, best, 1e9 / best, best / 2e6);
    for (const std::string& path : paths) std::remove(path.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  const char* tmp = getenv("TMPDIR");
  g_dir = tmp != nullptr ? tmp : "/tmp";
  bool pacing = true, merge = true;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "pacing") {
      merge = false;
    } else if (arg == "merge") {
      pacing = false;
    } else if (arg.rfind("--bench_dir=", 0) == 0) {
      g_dir = arg.substr(12);
    } else if (arg.rfind("--seconds=", 0) == 0) {
      g_seconds = std::atol(arg.c_str() + 10);
    } else {
      std::fprintf(stderr, "usage: %s [pacing|merge] [--bench_dir=DIR] [--seconds=N]\n", argv[0]);
      return 2;
    }
  }
  if (merge) RunMerge();
  if (pacing) RunPacing();
  return 0;
}
