// kelo_bag play: plays bags back at wall-clock pace through BagPlay, with its timeline,
// steered by keys in a terminal, optionally putting every message back on the LCM bus.

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "output/tools_module_output.h"
#include "play/bag_play.h"
#include "tools/kelo_bag/bag_sources.h"
#include "tools/kelo_bag/command_options.h"
#include "tools/kelo_bag/commands.h"
#include "tools/kelo_bag/lcm_bus.h"
#include "tools/kelo_bag/play_control.h"
#include "tools/kelo_bag/status_line.h"
#include "tools/kelo_bag/terminal_keys.h"
#include "tools/kelo_bag/timeline_display.h"
#include "tools/kelo_bag/topic_selection.h"

namespace kelo {
namespace cli {

namespace {

// How often a paused player is asked for its timeline: keys act on the next step.
constexpr useconds_t kPausedStepUs = 100000;

// Playback writes nothing, so a signal may end it at once; only the terminal must be put
// back as it was.
void ExitAtOnce(int signal_number) {
  RawTerminal::RestoreNow();
  static const char kLineEnd[] = "\n";
  ssize_t ignored = write(STDOUT_FILENO, kLineEnd, 1);
  (void)ignored;
  _exit(128 + signal_number);
}

// Maps in the code of the program and its libraries before the player's clock starts: the
// first message's trip through the player, LCM and the C library would otherwise stop at a
// page fault on each page of code it meets for the first time, and come out tens of
// microseconds late where the next ones do not. About a millisecond, once.
void MapInCode() {
#ifdef MADV_POPULATE_READ
  FILE* maps = std::fopen("/proc/self/maps", "r");
  if (maps == nullptr) return;
  char line[512];
  while (std::fgets(line, sizeof(line), maps) != nullptr) {
    unsigned long begin, end;
    char perms[5];
    if (std::sscanf(line, "%lx-%lx %4s", &begin, &end, perms) == 3 && perms[2] == 'x') {
      madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_READ);  // a hint: failure is harmless
    }
  }
  std::fclose(maps);
#endif
}

void QuitNow() {
  RawTerminal::RestoreNow();
  std::fputs("\nquit\n", stdout);
  std::fflush(stdout);
  // Straight out, without waiting for the player, which may be sleeping until its next
  // batch is due with its lock held.
  _exit(0);
}

// Keys other than q go to the player from a thread of their own, because a control call
// waits while the player waits for its next batch, and q must still be read meanwhile.
class KeyWorker {
 public:
  explicit KeyWorker(PlayControl* control) : control_(control), thread_([this] { Run(); }) {}
  ~KeyWorker() {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      done_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  // Keys pushed before this wait for it.
  void Start() {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      started_ = true;
    }
    changed_.notify_all();
  }

  void Push(Key key) {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      keys_.push_back(key);
    }
    changed_.notify_all();
  }

 private:
  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return done_ || (started_ && !keys_.empty()); });
      if (done_) return;
      const Key key = keys_.front();
      keys_.pop_front();
      lock.unlock();
      control_->Apply(key);
      lock.lock();
    }
  }

  PlayControl* const control_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Key> keys_;
  bool done_ = false;
  bool started_ = false;
  std::thread thread_;
};

// Reads keys from standard input until stopped; q ends the process.
class KeyReader {
 public:
  explicit KeyReader(KeyWorker* worker) : worker_(worker), thread_([this] { Run(); }) {}
  ~KeyReader() {
    done_.store(true);
    thread_.join();
  }

 private:
  void Run() {
    KeyDecoder decoder;
    while (!done_.load()) {
      pollfd fd = {STDIN_FILENO, POLLIN, 0};
      if (poll(&fd, 1, 100) <= 0) continue;
      char bytes[64];
      const ssize_t got = read(STDIN_FILENO, bytes, sizeof(bytes));
      if (got <= 0) return;  // no more input: playback goes on without keys
      std::vector<Key> keys;
      decoder.Feed(bytes, static_cast<size_t>(got), &keys);
      for (Key key : keys) {
        if (key == Key::kQuit) QuitNow();
        worker_->Push(key);
      }
    }
  }

  KeyWorker* const worker_;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// A player at `speed` times the recorded pace.
class ScaledPlay : public BagPlay {
 public:
  ScaledPlay(const std::vector<std::string>& files, double speed)
      : BagPlay(std::list<std::string>(files.begin(), files.end())) {
    rate_ = 1.0 / speed;
  }
};

}  // namespace

int RunPlay(int argc, const char* const* argv) {
  PlayOpt opt;
  int exit_code;
  if (!ParseCommandLine(&opt, argc, argv, &exit_code)) return exit_code;
  opt.files = PositionalsAsGiven(opt, argc, argv);
  const std::string wrong = opt.Check();
  if (!wrong.empty()) {
    std::fprintf(stderr, "play: %s (usage: play [OPTIONS] bag_file(s)...; see --help)\n", wrong.c_str());
    return 2;
  }
  if (opt.paused && isatty(STDIN_FILENO) == 0) {
    std::fprintf(stderr, "play: --paused needs a terminal on standard input, where space starts playback\n");
    return 2;
  }

  std::unique_ptr<LcmBus> bus;
  if (opt.publish) {
    std::string error;
    bus = LcmBus::Open(BusUrl(opt.url, 0), &error);
    if (bus == nullptr) {
      std::fprintf(stderr, "play: %s\n", error.c_str());
      return opt.url.empty() ? 1 : 2;  // a URL the user gave is a bad command line
    }
  }

  const BagSources sources("play", opt.files);
  if (sources.files().empty()) {
    std::fprintf(stderr, "play: nothing to play\n");
    return sources.ExitCode();
  }
  TopicSelection selection;
  selection.Set({}, opt.topics, opt.exclude);
  const std::set<std::string> selected = sources.Select(&selection);
  if (selected.empty()) {
    std::fprintf(stderr, "play: no topic of the bags is selected by --topics and --exclude\n");
    return kExitUnusable;
  }
  const long begin_ms = sources.begin_ms();
  bool partial = sources.partial();
  StatusLine status(stdout, isatty(STDOUT_FILENO) != 0);  // outlives the player, which reports to it
  // The player itself says what it kept of a recovered bag as it opens it.
  ScaledPlay play(sources.files(), opt.rate);
  // The player's filter takes names: the patterns are resolved against the bags' topics.
  if (selected.size() < sources.topics().size()) play.SetFilterTopics(selected);
  uint64_t delivered = 0;
  uint64_t publish_failures = 0;
  play.SetMessageCallback(
      [&](long time, const std::string& topic, const std::string& type, const std::string& data) {
        ++delivered;
        if (bus == nullptr) return;
        const auto renamed = opt.remap.find(topic);
        if (!bus->Publish(renamed == opt.remap.end() ? topic : renamed->second, data)) ++publish_failures;
      });
  PlayControl control(&play, begin_ms, opt.start, opt.duration);
  // On a terminal the timeline is a status line, which the player's other texts ("stop",
  // "no message") scroll above; elsewhere a line a second.
  ToolsModuleOutput* output = play.output();
  if (status.terminal())
    output->set_output_string_func([&status](const std::string& text) { status.AfterText(text); });
  TimelineDisplay timeline(&status, &control, begin_ms + opt.start * 1000L, opt.rate);
  play.SetTimelineInfoCallback([&timeline](bool paused, long bag_time, double elapsed_s, double duration_s) {
    timeline.Report(paused, bag_time, elapsed_s, duration_s);
  });
  if (opt.loop) control.Apply(Key::kLoop);

  RawTerminal terminal(STDIN_FILENO);
  struct sigaction action = {};
  action.sa_handler = ExitAtOnce;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  if (terminal.active()) {
    std::printf("keys: space pause/resume, s step, l loop, left/right seek %d s, q quit\n",
                PlayControl::kSeekSeconds);
  }
  if (bus != nullptr) std::printf("publishing on %s\n", bus->url().c_str());
  std::fflush(stdout);

  MapInCode();
  {
    // The key threads start before the player's clock, which would otherwise count their
    // start-up against the first message; keys typed meanwhile wait for Start().
    KeyWorker worker(&control);
    std::unique_ptr<KeyReader> reader(terminal.active() ? new KeyReader(&worker) : nullptr);
    play.ControlPlay(opt.start, opt.duration);
    if (opt.paused) control.Apply(Key::kPause);
    worker.Start();
    for (;;) {
      const int code = control.Step();
      if (code == BagPlay::kStopped || code == BagPlay::kNoMessage) break;
      if (code == BagPlay::kPaused) usleep(kPausedStepUs);
    }
  }
  timeline.Finish();
  std::printf("\nplayed %llu messages%s\n", static_cast<unsigned long long>(delivered),
              bus != nullptr ? (" onto " + bus->url()).c_str() : " (not published: --publish puts them on the LCM bus)");
  std::fflush(stdout);
  // Damage found while playing is told too, with what could not be read.
  for (const auto& [line, damaged] : play.GetBagErrors()) {
    if (!damaged) continue;
    std::fprintf(stderr, "play: %s\n", line.c_str());
    partial = true;
  }
  if (publish_failures > 0) {
    std::fprintf(stderr, "play: %llu messages could not be published\n",
                 static_cast<unsigned long long>(publish_failures));
    return kExitLost;
  }
  if (sources.unusable()) return kExitUnusable;
  return partial ? kExitPartial : kExitOk;
}

}  // namespace cli
}  // namespace kelo
