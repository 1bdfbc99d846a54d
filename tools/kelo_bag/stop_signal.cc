#include "tools/kelo_bag/stop_signal.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace kelo {
namespace cli {

namespace {

// Atomics, not sig_atomic_t: the two signals of a forced stop may arrive on two threads at
// once (LCM has threads of its own), and both must not take themselves for the first.
std::atomic<bool> requested{false};
std::atomic<int> last_signal{0};
static_assert(std::atomic<int>::is_always_lock_free, "used from a signal handler");
static_assert(std::atomic<bool>::is_always_lock_free, "used from a signal handler");

void OnSignal(int signal_number) {
  last_signal.store(signal_number);
  if (requested.exchange(true)) {
    static const char kForced[] =
        "\nstopped at once: files being written stay .active (readable up to their last chunk)\n";
    ssize_t ignored = write(STDERR_FILENO, kForced, sizeof(kForced) - 1);
    (void)ignored;
    _exit(130);
  }
}

}  // namespace

void StopSignal::Install() {
  requested.store(false);
  last_signal.store(0);
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool StopSignal::Requested() { return requested.load(); }

int StopSignal::Signal() { return last_signal.load(); }

}  // namespace cli
}  // namespace kelo
