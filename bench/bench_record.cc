// Recorder benchmarks:
//   latency   AppendMessage latency (median, p99) of 100 B messages with 1, 2 and 4 receive
//             threads, each paced below the rate the save thread sustains.
//   intake    the highest rate of a ladder that 10 s of 100 B, 10 KB and 1 MB messages
//             pass without a single drop, next to what the bag writer alone reaches.
//   monitor   monitor query round trip with 10 and 1000 topics while one thread feeds the
//             recorder as fast as it can, and that thread's rate with a query every 10 ms
//             against none.
//   split     messages lost at 200,000 messages/s of 100 B (message time = wall time)
//             with 1 s parts against one file, three times each (--runs), in one run.
// The recorder opens the monitor's multicast server: run it in a private network namespace,
//   tests/run_in_netns.sh build/release/bench/bench_record all
// Usage: bench_record [latency|intake|monitor|split|all] [--dir DIR] [--seconds S] [--bytes N] [--runs N]
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "output/tools_module_output.h"
#include "platform/bag/bag_writer.h"
#include "platform/fileio/file_path.h"
#include "record/bag_record.h"
#include "record/record_monitor_client.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string g_dir = "/tmp/kelo_bench_record";
double g_seconds = 10.0;
size_t g_only_bytes = 0;  // intake: measure this message size only (0: all)
int g_runs = 3;           // split: runs of each

void ClearDir() { std::system(("rm -rf '" + g_dir + "' && mkdir -p '" + g_dir + "'").c_str()); }

long NowMs() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec * 1000L + tv.tv_usec / 1000;
}

// Silences the recorder's console and counts its drop reports.
struct Quiet {
  explicit Quiet(kelo::BagRecord* record) {
    record->output()->set_output_string_func([this](const std::string& text) {
      if (text.rfind("AppendMessage buffer exceeded", 0) == 0) ++drops;
    });
  }
  std::atomic<long> drops{0};
};

// Redirects stdout to /dev/null while alive, so the recorder's console lines cost what
// they cost without flooding the terminal.
struct MuteStdout {
  MuteStdout() {
    fflush(stdout);
    saved = dup(1);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
  }
  ~MuteStdout() {
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
  }
  int saved;
};

void Latency() {
  std::printf("AppendMessage latency, 100 B messages\n");
  std::printf("%8s %12s %10s %10s %10s\n", "threads", "msgs/thread", "median_ns", "p99_ns", "max_ns");
  const std::string payload(100, 'x');
  for (int threads : {1, 2, 4}) {
    ClearDir();
    std::vector<std::vector<double>> samples(threads);
    {
      MuteStdout mute;
      kelo::BagRecord record("bench", g_dir + "/lat", 0);
      Quiet quiet(&record);
      record.Start();
      // 40,000 messages per second in total: well inside what the save thread drains.
      const double per_thread_rate = 40000.0 / threads;
      const int count = static_cast<int>(per_thread_rate * std::min(g_seconds, 5.0));
      std::vector<std::thread> workers;
      for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
          std::string topic = "/bench/" + std::to_string(t);
          auto& mine = samples[t];
          mine.reserve(count);
          auto start = Clock::now();
          for (int i = 0; i < count; ++i) {
            auto due = start + std::chrono::nanoseconds(static_cast<long>(i * 1e9 / per_thread_rate));
            while (Clock::now() < due) {
            }
            auto before = Clock::now();
            record.AppendMessage(NowMs(), topic, "bench.Payload", payload);
            mine.push_back(std::chrono::duration<double, std::nano>(Clock::now() - before).count());
          }
        });
      }
      for (auto& worker : workers) worker.join();
      record.Stop();
      if (quiet.drops)
        std::fprintf(stderr, "warning: %ld drops during the latency run\n", quiet.drops.load());
    }
    std::vector<double> all;
    for (auto& mine : samples) all.insert(all.end(), mine.begin(), mine.end());
    std::sort(all.begin(), all.end());
    std::printf("%8d %12zu %10.0f %10.0f %10.0f\n", threads, samples[0].size(), all[all.size() / 2],
                all[all.size() * 99 / 100], all.back());
  }
  ClearDir();
}

// Feeds one thread at `rate` messages per second for g_seconds into a recorder that splits
// every `split_s` seconds (0: one file); returns the drops.
long RunIntake(size_t bytes, double rate, long split_s = 0) {
  ClearDir();
  MuteStdout mute;
  kelo::BagRecord record("bench", g_dir + "/intake", split_s);
  Quiet quiet(&record);
  record.Start();
  std::string payload(bytes, '\0');
  for (size_t i = 0; i < bytes; ++i) payload[i] = static_cast<char>(rand());
  const long count = static_cast<long>(rate * g_seconds);
  auto start = Clock::now();
  for (long i = 0; i < count; ++i) {
    auto due = start + std::chrono::nanoseconds(static_cast<long>(i * 1e9 / rate));
    while (Clock::now() < due) std::this_thread::sleep_for(std::chrono::microseconds(20));
    payload[i % bytes] ^= 1;  // keep each payload distinct
    record.AppendMessage(NowMs(), "/intake", "bench.Payload", payload);
  }
  record.Stop();
  if (static_cast<long>(record.GetLosses().total()) != quiet.drops.load()) {
    std::fprintf(stderr, "warning: %llu lost, %ld drop lines\n",
                 static_cast<unsigned long long>(record.GetLosses().total()), quiet.drops.load());
  }
  return static_cast<long>(record.GetLosses().total());
}

void Split() {
  std::printf("\nMessages lost at 200,000 messages/s of 100 B, %.0f s a run, one file against 1 s parts\n",
              g_seconds);
  std::printf("%6s %12s %12s\n", "run", "one_file", "1s_parts");
  long totals[2] = {0, 0};
  for (int run = 1; run <= g_runs; ++run) {
    const long one = RunIntake(100, 200000, 0);
    const long parts = RunIntake(100, 200000, 1);
    totals[0] += one;
    totals[1] += parts;
    std::printf("%6d %12ld %12ld\n", run, one, parts);
  }
  std::printf("%6s %12ld %12ld\n", "total", totals[0], totals[1]);
  ClearDir();
}

// Messages per second the bag writer alone takes for g_seconds.
double WriterAlone(size_t bytes) {
  ClearDir();
  kelo::BagWriter writer(kelo::fileio::FilePath(g_dir + "/alone.kelobag.active"));
  writer.open("");
  writer.append_topic("/intake", "bench.Payload");
  std::string payload(bytes, '\0');
  for (size_t i = 0; i < bytes; ++i) payload[i] = static_cast<char>(rand());
  long written = 0;
  auto start = Clock::now();
  double elapsed = 0;
  while ((elapsed = std::chrono::duration<double>(Clock::now() - start).count()) < g_seconds) {
    payload[written % bytes] ^= 1;
    writer.append_message(NowMs(), NowMs(), "/intake", payload, "bench.Payload");
    ++written;
  }
  writer.close();
  elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  return written / elapsed;
}

void Intake() {
  std::printf("\nIntake without drops, %.0f s per step\n", g_seconds);
  std::printf("%10s %14s %14s %8s\n", "size", "writer_alone/s", "best_no_drop/s", "ratio");
  struct Size {
    size_t bytes;
    std::vector<double> fixed_ladder;  // empty: a ladder relative to the writer alone
  } sizes[] = {
      {100, {50000, 95000, 100000, 200000, 400000}}, {10 * 1024, {5000, 20000, 40000, 60000}}, {1 << 20, {}}};
  for (const Size& size : sizes) {
    if (g_only_bytes != 0 && size.bytes != g_only_bytes) continue;
    double alone = WriterAlone(size.bytes);
    std::vector<double> ladder = size.fixed_ladder;
    if (ladder.empty()) {
      for (double share : {0.7, 0.8, 0.9, 0.95}) ladder.push_back(alone * share);
    }
    double best = 0;
    for (double rate : ladder) {
      if (rate > alone) break;
      long drops = RunIntake(size.bytes, rate);
      std::fprintf(stderr, "  %zu B at %.0f/s: %ld drops\n", size.bytes, rate, drops);
      if (drops != 0) break;
      best = rate;
    }
    std::printf("%10zu %14.0f %14.0f %8.2f\n", size.bytes, alone, best, best / alone);
  }
  ClearDir();
}

// AppendMessage calls per second of one thread feeding `record` flat out for `seconds`,
// spread over `topics` topics.
double FeedFlatOut(kelo::BagRecord* record, int topics, double seconds, std::atomic<bool>* stop_early) {
  const std::string payload(100, 'x');
  std::vector<std::string> names;
  for (int t = 0; t < topics; ++t) names.push_back("/monitor/" + std::to_string(t));
  long calls = 0;
  auto start = Clock::now();
  double elapsed = 0;
  while ((elapsed = std::chrono::duration<double>(Clock::now() - start).count()) < seconds &&
         !(stop_early != nullptr && *stop_early)) {
    for (int i = 0; i < 64; ++i, ++calls)
      record->AppendMessage(NowMs(), names[calls % topics], "bench.M", payload);
  }
  return calls / elapsed;
}

void Monitor() {
  std::printf("\nMonitor query round trip while one thread feeds the recorder flat out\n");
  std::printf("%8s %10s %10s %10s %8s\n", "topics", "median_us", "p99_us", "max_us", "answered");
  for (int topics : {10, 1000}) {
    ClearDir();
    std::vector<double> round_trips;
    {
      MuteStdout mute;
      kelo::BagRecord record("bench", g_dir + "/monitor", 0);
      Quiet quiet(&record);
      record.Start();
      std::atomic<bool> stop{false};
      std::thread feeder([&] { FeedFlatOut(&record, topics, 1e9, &stop); });
      usleep(200000);
      kelo::RecordMonitorClient client;
      for (int q = 0; q < 200; ++q) {
        auto before = Clock::now();
        size_t answers = client.Query(1000, 1).size();
        double us = std::chrono::duration<double, std::micro>(Clock::now() - before).count();
        if (answers == 1) round_trips.push_back(us);
        usleep(5000);
      }
      stop = true;
      feeder.join();
      record.Stop();
    }
    const size_t answered = round_trips.size();
    std::sort(round_trips.begin(), round_trips.end());
    if (round_trips.empty()) round_trips.push_back(0);
    std::printf("%8d %10.0f %10.0f %10.0f %5zu/200\n", topics, round_trips[round_trips.size() / 2],
                round_trips[round_trips.size() * 99 / 100], round_trips.back(), answered);
  }

  std::printf("\nIntake with a query every 10 ms against none (100 B, 10 topics, %.0f s each)\n", g_seconds);
  double rates[2] = {0, 0};
  for (int with_queries = 0; with_queries < 2; ++with_queries) {
    ClearDir();
    MuteStdout mute;
    kelo::BagRecord record("bench", g_dir + "/monitor", 0);
    Quiet quiet(&record);
    record.Start();
    std::atomic<bool> stop{false};
    std::thread asker;
    if (with_queries) {
      asker = std::thread([&] {
        kelo::RecordMonitorClient client;
        while (!stop) {
          client.Query(1000, 1);
          usleep(10000);
        }
      });
    }
    rates[with_queries] = FeedFlatOut(&record, 10, g_seconds, nullptr);
    stop = true;
    if (asker.joinable()) asker.join();
    record.Stop();
  }
  std::printf("%14s %14s %8s\n", "calls/s none", "calls/s query", "ratio");
  std::printf("%14.0f %14.0f %8.3f\n", rates[0], rates[1], rates[1] / rates[0]);
  ClearDir();
}

}  // namespace

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "all";
  for (int i = 2; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--dir") == 0) g_dir = argv[i + 1];
    if (std::strcmp(argv[i], "--seconds") == 0) g_seconds = std::atof(argv[i + 1]);
    if (std::strcmp(argv[i], "--bytes") == 0) g_only_bytes = std::strtoul(argv[i + 1], nullptr, 10);
    if (std::strcmp(argv[i], "--runs") == 0) g_runs = std::atoi(argv[i + 1]);
  }
  if (mode == "latency" || mode == "all") Latency();
  if (mode == "intake" || mode == "all") Intake();
  if (mode == "monitor" || mode == "all") Monitor();
  if (mode == "split" || mode == "all") Split();
  return 0;
}
