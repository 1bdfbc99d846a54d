#ifndef KELO_TOOLS_KELO_BAG_COMMANDS_H_
#define KELO_TOOLS_KELO_BAG_COMMANDS_H_

namespace kelo {
namespace cli {

// The kelo_bag commands. Each takes its own command line, argv[0] being the command's name,
// and returns the process's exit code: 0 when it did its job, 1 when something failed on
// the way (said on standard error), 2 for a bad command line (one line on standard error).
int RunRecord(int argc, const char* const* argv);
int RunPlay(int argc, const char* const* argv);
int RunInfo(int argc, const char* const* argv);
int RunMonitor(int argc, const char* const* argv);
int RunTrigger(int argc, const char* const* argv);
int RunDemo(int argc, const char* const* argv);

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_COMMANDS_H_
