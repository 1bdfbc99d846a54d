#include "tools/kelo_bag/stop_signal.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace kelo {
namespace cli {

namespace {

std::atomic<bool> requested{false};
volatile sig_atomic_t signals_seen = 0;
volatile sig_atomic_t last_signal = 0;

void OnSignal(int signal_number) {
  last_signal = signal_number;
  if (signals_seen++ > 0) {
    static const char kForced[] =
        "\nstopped at once: files being written stay .active (readable up to their last chunk)\n";
    ssize_t ignored = write(STDERR_FILENO, kForced, sizeof(kForced) - 1);
    (void)ignored;
    _exit(130);
  }
  requested.store(true);
}

}  // namespace

void StopSignal::Install() {
  requested.store(false);
  signals_seen = 0;
  last_signal = 0;
  struct sigaction action = {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool StopSignal::Requested() { return requested.load(); }

int StopSignal::Signal() { return last_signal; }

}  // namespace cli
}  // namespace kelo
