#ifndef KELO_TOOLS_KELO_BAG_TERMINAL_KEYS_H_
#define KELO_TOOLS_KELO_BAG_TERMINAL_KEYS_H_

#include <termios.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kelo {
namespace cli {

// The keys that steer playback.
enum class Key {
  kPause,  // space
  kStep,   // s
  kLoop,   // l
  kQuit,   // q
  kLeft,   // left arrow
  kRight,  // right arrow
};

// Turns the bytes a terminal sends into keys. Arrow keys arrive as escape sequences
// (ESC [ D, or ESC O D in application mode) that may be split across reads; other bytes
// and sequences are ignored. Upper-case letters count as their lower-case keys.
class KeyDecoder {
 public:
  // Decodes `size` bytes, appending every completed key to `keys`.
  void Feed(const char* data, size_t size, std::vector<Key>* keys);

 private:
  std::string pending_;  // the start of an escape sequence
};

// Puts a terminal in the mode a key-driven program needs: each key is delivered at once,
// without echo. Ctrl-C still sends SIGINT. The previous mode comes back when the object is
// destroyed, or through RestoreNow() from a signal handler or before an immediate exit.
//
//   RawTerminal raw(STDIN_FILENO);
//   if (raw.active()) { ... read(STDIN_FILENO, ...) ... }
//
// One object at a time per process.
class RawTerminal {
 public:
  // Does nothing (active() false) when `fd` is not a terminal.
  explicit RawTerminal(int fd);
  ~RawTerminal();

  RawTerminal(const RawTerminal&) = delete;
  RawTerminal& operator=(const RawTerminal&) = delete;

  bool active() const { return active_; }

  // Restores the terminal of the live object, if any. Async-signal-safe.
  static void RestoreNow();

 private:
  const int fd_;
  bool active_ = false;
  struct termios saved_ = {};
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_TERMINAL_KEYS_H_
