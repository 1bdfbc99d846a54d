#ifndef KELO_TOOLS_KELO_BAG_STOP_SIGNAL_H_
#define KELO_TOOLS_KELO_BAG_STOP_SIGNAL_H_

namespace kelo {
namespace cli {

// Ctrl-C and SIGTERM for commands that must finish what they hold before they exit: the
// first signal only asks them to stop; a second one ends the process at once (exit code
// 130), for a user who will not wait.
//
//   StopSignal::Install();
//   while (!StopSignal::Requested()) bus->Handle(100);
//   ... drain, complete files ...
class StopSignal {
 public:
  StopSignal() = delete;

  // Installs the handlers for SIGINT and SIGTERM (and forgets an earlier request).
  static void Install();
  // Whether a signal came since Install().
  static bool Requested();
  // The signal that asked, 0 when none did.
  static int Signal();
};

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_STOP_SIGNAL_H_
