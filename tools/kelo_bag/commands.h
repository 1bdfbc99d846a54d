#ifndef KELO_TOOLS_KELO_BAG_COMMANDS_H_
#define KELO_TOOLS_KELO_BAG_COMMANDS_H_

namespace kelo {
namespace cli {

// The kelo_bag commands. Each takes its own command line, argv[0] being the command's name,
// and returns the process's exit code, the same for every command:
constexpr int kExitOk = 0;        // all went well
constexpr int kExitLost = 1;      // something was lost or could not be done (the last line says what)
constexpr int kExitUnusable = 2;  // a bad command line, or input that cannot be used at all
constexpr int kExitPartial = 3;   // damaged input was read as far as it could be (each file named)

// The exit codes as --help shows them.
extern const char kExitCodesHelp[];

int RunRecord(int argc, const char* const* argv);
int RunPlay(int argc, const char* const* argv);
int RunInfo(int argc, const char* const* argv);
int RunMonitor(int argc, const char* const* argv);
int RunTrigger(int argc, const char* const* argv);
int RunDemo(int argc, const char* const* argv);
int RunCat(int argc, const char* const* argv);
int RunFilter(int argc, const char* const* argv);
int RunMerge(int argc, const char* const* argv);
int RunRecover(int argc, const char* const* argv);

}  // namespace cli
}  // namespace kelo

#endif  // KELO_TOOLS_KELO_BAG_COMMANDS_H_
