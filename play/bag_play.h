#ifndef KELO_PLAY_BAG_PLAY_H_
#define KELO_PLAY_BAG_PLAY_H_

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/bag/bag_message.h"
#include "play/play_port.h"

namespace kelo {

class BagReader;
class BagView;
class KeloThreadSpin;
class ToolsModuleOutput;

// Plays one or more bags back in bag-time order at the pace of the wall clock. The player
// has no thread of its own: the embedding tool steps it, and may steer it from any thread.
//
//   BagPlay play(std::list<std::string>{"a.kelobag", "b.kelobag"});
//   play.SetMessageCallback([](long time, const std::string& topic, const std::string& type,
//                              const std::string& data) { Forward(topic, data); });
//   play.ControlPlay(0, 0);                            // from the start, to the end
//   while (play.NotifyTimeline() == BagPlay::kPlayed) {}  // until the range is over
//
// Each step waits until the next batch (the messages that share one bag time) is due,
// reports the timeline, then delivers the batch to the message callback and to the port
// of each message's topic. The console timeline line is the default report.
//
// Threads: NotifyTimeline and the Control* operations may be called from any thread; they
// are serialised by one lock, which a step holds while it waits, so a control call made
// during a wait returns once that step has delivered its batch. The callbacks and ports
// run on the stepping thread with that lock held: they must not call NotifyTimeline, a
// Control* operation or ReadBags (the lock is not recursive), but they may replace the
// callbacks and clear the ports. The remaining operations take no lock and are for the
// setting-up phase, while no other thread steps or controls the player.
class BagPlay {
 public:
  using MessageCallback = std::function<void(long time, const std::string& topic, const std::string& type,
                                             const std::string& data)>;
  using TimelineCallback =
      std::function<void(bool paused, long bag_time, double elapsed_s, double duration_s)>;

  // Step codes of NotifyTimeline().
  static constexpr int kPlayed = 0;     // a batch was delivered (or a single step made)
  static constexpr int kStopped = 1;    // not playing; "stop" was printed
  static constexpr int kNoMessage = 2;  // playing, nothing left to play; "no message" printed
  static constexpr int kPaused = 3;     // paused; only the timeline was reported

  // A player with no bag, paused and not playing, reporting the timeline on the console.
  BagPlay();
  // The same with bags opened as by ReadBags().
  explicit BagPlay(const std::string& path);
  explicit BagPlay(const std::list<std::string>& paths);
  // Deletes the ports, the readers and the output channel. No other thread may be inside
  // the player when it is destroyed.
  virtual ~BagPlay();

  BagPlay(const BagPlay&) = delete;
  BagPlay& operator=(const BagPlay&) = delete;

  // Opens each path and adds it to the bags played, in order. A file that cannot be read
  // prints its reader's one-line error and still counts as a (normally empty) bag, so the
  // others play. Takes the lock. Meant for setting up: a bag added during playback joins
  // the merge from its first message until the next ControlPlay positions it.
  void ReadBags(const std::list<std::string>& paths);

  // Every topic of every bag, by name, with its type; unaffected by the filter. Belongs to
  // the player.
  const std::map<std::string, std::string>& GetAllTopics() const;

  // For each bag with a problem, in the order the bags were opened: its reader's error line
  // as it is now (damage found while playing counts too) and whether something of the bag
  // could not be read (more than an unfinished end). Takes no lock, like GetAllTopics().
  std::vector<std::pair<std::string, bool>> GetBagErrors() const;

  // Plays only `topics` (every topic when empty). A message already under a bag's cursor
  // still plays; the filter is fully in force from the next ControlPlay.
  void SetFilterTopics(const std::set<std::string>& topics);

  // Replace the callbacks; the previous one is destroyed. An empty message callback is
  // skipped. The timeline callback replaces the console line; an empty one makes every
  // step that reports the timeline throw std::bad_function_call (the lock is released).
  // Also callable from inside either callback.
  void SetMessageCallback(MessageCallback callback);
  void SetTimelineInfoCallback(TimelineCallback callback);

  // Delivers every later message of `topic` to `port` as well, and takes ownership of
  // it; a port already set for `topic` is deleted. A null `port` just deletes that one.
  void AddPort(const std::string& topic, PlayPortIntf* port);
  // Deletes every port. Also callable from inside a callback.
  void ClearPorts();

  // One step of playback; returns kPlayed, kStopped, kNoMessage or kPaused (see above).
  // Running, it waits until the next batch is due, reports the timeline and delivers the
  // batch. A batch is due at the start of playback plus its offset in the bag plus the
  // time spent paused; the wait ends at that wall-clock millisecond, and a batch already
  // late is delivered at once without moving the schedule of the next ones. At the end of
  // the play range it rewinds when looping, otherwise the following step says "stop"; a
  // range with nothing in it says "no message" until ControlQuit or a new ControlPlay.
  // Paused, it only reports the timeline, unless a single step is armed.
  int NotifyTimeline();

  // While paused (and only then): sets the play range to `start` seconds after the
  // earliest bag's start, for `duration` seconds (0: to the end), rewinds to its first
  // message, restarts the clock, prints the summary and runs. Returns whether it acted.
  // To seek while running, pause first.
  bool ControlPlay(int start, int duration);
  // ControlPlay without printing the summary: a seek of a player whose summary is shown.
  bool ControlSeek(int start, int duration);
  // Pauses or resumes; the time spent paused is cut out of the playback clock, so
  // playback resumes where it stopped. Returns whether the state changed.
  bool ControlPause(bool pause);
  // Sets whether the play range repeats; read by the next step. Returns whether it changed.
  bool ControlLoop(bool loop);
  // While paused: the next step delivers the next batch at once, then playback stays
  // paused (when that batch was already due, the step after it delivers one more).
  // Returns whether it acted (false when not paused).
  bool ControlSingle();
  // Stops playing: steps print "stop" until the next ControlPlay (which, when not paused,
  // needs a ControlPause(true) first). Returns true.
  bool ControlQuit();

  // The channel every text of the player goes through; install sinks here. Belongs to the
  // player and must never be deleted.
  ToolsModuleOutput* output();

 protected:
  // The following run only with the lock held, from ControlPlay and NotifyTimeline.

  // Rewinds to the start of the play range and restarts the clock.
  void Reset();
  // Waits until the current message is due (consumes an armed single step instead).
  void Sleep();
  // Delivers the batch of messages that share the current message's time.
  void Publish();
  // Reports (paused, bag time, elapsed seconds, play range seconds) to the timeline callback.
  void PrintTime();
  // Prints the play range length and every topic.
  void PrintView();

 private:
  void PrintConsoleTimeline(bool paused, long bag_time, double elapsed_s, double duration_s);
  bool Start(int start, int duration, bool print_view);

  std::list<BagReader*> readers_;
  BagView* view_;
  ToolsModuleOutput* output_;
  std::map<std::string, PlayPortIntf*> ports_;
  std::shared_ptr<BagMessage> current_message_;
  int64_t first_time_;     // bag ms of the first message of the range
  int64_t start_wall_ms_;  // wall ms matching first_time_, moved on by every pause
  int64_t pause_wall_ms_;  // wall ms the current pause began; 0 when none
  int64_t play_time_;      // bag ms of the batch last waited for
  int64_t now_wall_ms_;    // wall ms read by the last Sleep()
  KeloThreadSpin* lock_;

 protected:
  // The library itself never changes it; a tool may scale playback in a subclass, before
  // playback starts.
  double rate_;

 private:
  bool paused_;
  bool loop_;
  bool single_;
  bool playing_;
  MessageCallback message_callback_;
  TimelineCallback timeline_callback_;
};

}  // namespace kelo

#endif  // KELO_PLAY_BAG_PLAY_H_
