#include "tools/kelo_bag/terminal_keys.h"

#include <unistd.h>

#include <atomic>

namespace kelo {
namespace cli {

namespace {

constexpr char kEscape = '\033';

// What RestoreNow() puts back; written before the terminal changes and read by signal
// handlers, so only through these atomics.
std::atomic<int> restore_fd{-1};
struct termios restore_mode;

}  // namespace

void KeyDecoder::Feed(const char* data, size_t size, std::vector<Key>* keys) {
  for (size_t i = 0; i < size; ++i) {
    const char c = data[i];
    if (pending_.size() == 1 && c != '[' && c != 'O') {
      pending_.clear();  // a lone Escape: the byte after it is a key of its own
    } else if (!pending_.empty()) {
      pending_ += c;
      if (pending_.size() == 2) continue;
      // ESC [ or ESC O, then parameters, then a final byte from '@' to '~'.
      if (c >= '@' && c <= '~') {
        if (pending_.size() == 3 && c == 'C') keys->push_back(Key::kRight);
        if (pending_.size() == 3 && c == 'D') keys->push_back(Key::kLeft);
        pending_.clear();
      } else if (pending_.size() > 16) {
        pending_.clear();
      }
      continue;
    }
    switch (c) {
      case kEscape:
        pending_ = c;
        break;
      case ' ':
        keys->push_back(Key::kPause);
        break;
      case 's':
      case 'S':
        keys->push_back(Key::kStep);
        break;
      case 'l':
      case 'L':
        keys->push_back(Key::kLoop);
        break;
      case 'q':
      case 'Q':
        keys->push_back(Key::kQuit);
        break;
      default:
        break;
    }
  }
}

RawTerminal::RawTerminal(int fd) : fd_(fd) {
  if (!isatty(fd_) || tcgetattr(fd_, &saved_) != 0) return;
  struct termios raw = saved_;
  raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  raw.c_cc[VMIN] = 1;
  raw.c_cc[VTIME] = 0;
  restore_mode = saved_;
  restore_fd.store(fd_);
  if (tcsetattr(fd_, TCSANOW, &raw) != 0) {
    restore_fd.store(-1);
    return;
  }
  active_ = true;
}

RawTerminal::~RawTerminal() {
  if (!active_) return;
  restore_fd.store(-1);
  tcsetattr(fd_, TCSANOW, &saved_);
}

void RawTerminal::RestoreNow() {
  const int fd = restore_fd.exchange(-1);
  if (fd >= 0) tcsetattr(fd, TCSANOW, &restore_mode);
}

}  // namespace cli
}  // namespace kelo
