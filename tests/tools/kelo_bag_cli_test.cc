// The kelo_bag command's face without a bus: help, bad command lines, info and plain
// playback of files.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <lcm/eventlog.h>

#include "platform/bag/bag_reader.h"
#include "platform/bag/bag_writer.h"
#include "platform/bag/mcap_records.h"
#include "platform/fileio/file_path.h"
#include "tests/support/bag_files.h"
#include "tests/support/temp_dir.h"
#include "tests/support/subprocess.h"

namespace kelo {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing_support::ReadFile;
using testing_support::RunResult;
using testing_support::RunToEnd;
using testing_support::TempDir;

const std::string kKeloBag = KELO_BAG;

RunResult KeloBag(const TempDir& dir, std::vector<std::string> args) {
  args.insert(args.begin(), kKeloBag);
  return RunToEnd(args, dir.file("kelo_bag"));
}

// A run that ended with exit code `code` and said `said` on its standard error.
MATCHER_P2(ExitsSaying, code, said, "") {
  *result_listener << "exit code " << arg.code << ", said: " << arg.err;
  return arg.code == code && arg.err.find(said) != std::string::npos;
}

size_t Lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

// /a at 10 Hz and /b at 2 Hz for `seconds`, starting `offset` ms after t0, and /c at the
// start and the end with another type each time.
std::string WriteBag(const TempDir& dir, const std::string& name, long offset, int seconds) {
  BagWriter writer(fileio::FilePath(dir.file(name + ".kelobag.active")));
  writer.open("");
  for (long t = 0; t <= seconds * 1000L; t += 100) {
    writer.append_message(1700000000000 + offset + t, 0, "/a", "aaaa", "lcm:0x00000000000000aa");
    if (t % 500 == 0) writer.append_message(1700000000000 + offset + t, 0, "/b", "bb", "lcm:short");
    if (t == 0 || t == seconds * 1000L)
      writer.append_message(1700000000000 + offset + t, 0, "/c", "c", t ? "v2" : "v1");
  }
  return writer.close();
}

TEST(KeloBagCliTest, PrintsHelpForTheToolAndEveryCommand) {
  TempDir dir;
  const RunResult tool = KeloBag(dir, {"--help"});
  EXPECT_EQ(0, tool.code);
  EXPECT_THAT(tool.out, HasSubstr("\nexit codes:\n  0  all went well\n"));
  const RunResult version = KeloBag(dir, {"--version"});
  EXPECT_EQ(0, version.code);
  EXPECT_EQ(0u, version.out.find("kelo_bag " + std::string(KELO_BAG_VERSION) + "\n")) << version.out;
  const std::regex takes_value("^  (-\\w,)?--[\\w-]+(,--[\\w-]+)? \\S");
  for (const char* command :
       {"record", "play", "info", "monitor", "trigger", "cat", "filter", "merge", "recover", "demo"}) {
    EXPECT_THAT(tool.out, HasSubstr(std::string("  ") + command + " ")) << command;
    const RunResult help = KeloBag(dir, {command, "--help"});
    EXPECT_EQ(0, help.code) << command;
    EXPECT_THAT(help.out, HasSubstr(std::string("Usage: ") + command));
    EXPECT_THAT(help.out, HasSubstr("  3  damaged input was read as far as it could be"));
    EXPECT_EQ("", help.err) << command;
    // Every option that takes a value names its unit and says what it is when not given.
    std::istringstream lines(help.out);
    for (std::string line; std::getline(lines, line);)
      EXPECT_TRUE(!std::regex_search(line, takes_value) || line.find("default") != std::string::npos) << line;
  }
}

TEST(KeloBagCliTest, RefusesABadCommandLineWithOneLineAndExitCode2) {
  TempDir dir;
  const std::vector<std::vector<std::string>> bad = {
      {}, {"recrod"}, {"record", "-a", "/imu"}, {"record", "-a", "--regex", "/i.*"}, {"record", "--regex", "("},
      {"record", "-a", "--exclude", "["}, {"record", "-a", "--max-files", "2"}, {"record", "-a", "--no-such-option"},
      {"record", "-a", "--interface", "no_such_if0"}, {"record", "-a", "--url", "nosuch://"},
      {"record", "-a", "--trigger", "--reserve", "-5"}, {"record", "-a", "--trigger", "--cache", "-1"},
      {"record", "-a", "--reserve", "5"}, {"play"}, {"play", "--start", "-1", "a.kelobag"},
      {"play", "--duration", "-2", "a.kelobag"}, {"play", "--rate", "0.05", "a.kelobag"},
      {"play", "--rate", "101", "a.kelobag"}, {"play", "--topics", "(", "a.kelobag"},
      {"play", "--remap", "/a:=/b", "a.kelobag"}, {"play", "--publish", "--remap", "/a", "a.kelobag"},
      {"play", "--paused", "a.kelobag"}, {"info"}, {"monitor", "extra"}, {"monitor", "--wait", "0"},
      {"trigger", "--label", "two words"}, {"demo", "a", "b"}, {"filter", "a.kelobag"},
      {"merge", "-o", "out.bag", "a.kelobag"}, {"recover", "-o", "r.kelobag", "a.kelobag", "b.kelobag"},
      {"cat", "--topics", "(", "a.kelobag"}};
  for (const std::vector<std::string>& args : bad) {
    SCOPED_TRACE(testing::PrintToString(args));
    const RunResult run = KeloBag(dir, args);
    EXPECT_EQ(2, run.code) << run.err;
    // LCM adds a line of its own about a provider it does not know; ours is the last.
    EXPECT_EQ(args.size() > 2 && args[2] == "--url" ? 2u : 1u, Lines(run.err)) << run.err;
    EXPECT_EQ("", run.out);
  }
}

TEST(KeloBagCliTest, InfoDescribesEachBagAndAllTogetherAndGoesOnPastAnUnreadableOne) {
  TempDir dir;
  const std::string first = WriteBag(dir, "first", 0, 2);
  const std::string second = WriteBag(dir, "second", 3000, 1);
  std::ofstream(dir.file("junk.kelobag")) << "junk";
  const RunResult text = KeloBag(dir, {"info", first, dir.file("junk.kelobag"), second});
  EXPECT_EQ(2, text.code) << "a file that is no bag is input that cannot be used";
  EXPECT_EQ(1u, Lines(text.err)) << text.err;
  EXPECT_EQ(0u, text.err.find("info: " + dir.file("junk.kelobag") + ": ")) << text.err;
  for (const std::string& want : std::vector<std::string>{
           "path:        " + first, "path:        " + second, "all 2 files", "messages:    28\n",
           "messages:    16\n", "messages:    44\n", "duration:    4.000 s",
           "  /a     lcm:0x00000000000000aa        21      10.00 Hz\n"})
    EXPECT_THAT(text.out, HasSubstr(want)) << want;
  EXPECT_THAT(text.out, ContainsRegex("start: +20[0-9-]{8} [0-9:]{8}\\.000 \\(1700000000000 ms\\)"));

  // Read from the summary or from every message, a sound bag is described alike.
  EXPECT_EQ(text.out, KeloBag(dir, {"info", "--verify", first, dir.file("junk.kelobag"), second}).out);
  // Files in the order given, each once; the demo's check compares each file's counts, times
  // and topics with another reader.
  const RunResult json = KeloBag(dir, {"info", "--json", second, first, second});
  ASSERT_EQ(0, json.code) << json.err;
  Json::Value root;
  ASSERT_TRUE(Json::Reader().parse(json.out, root)) << json.out;
  EXPECT_EQ(2u, root["files"].size());
  EXPECT_EQ(4u, root["merged"]["topics"].size());  // /c once per type
  for (const auto& [path, want] : std::vector<std::pair<std::string, std::string>>{
           {"files[0].path", second}, {"files[1].path", first}, {"files[0].recovered", "false"},
           {"files[0].size_bytes", std::to_string(ReadFile(second).size())}, {"merged.messages", "44"},
           {"merged.end_ms", "1700000004000"}, {"merged.files", "2"}, {"merged.topics[3].type", "v2"},
           {"merged.topics[3].messages", "2"}, {"merged.compression", "none"}})
    EXPECT_EQ(want, Json::Path(path).resolve(root).asString()) << path;
  // /c of type v1 once in each bag, at 3 s in the one given first and at 0 s in the other.
  EXPECT_NEAR(1 / 3.0, root["merged"]["topics"][2]["frequency_hz"].asDouble(), 1e-9);
}

// Damage is named with what could not be read, and makes info and play exit with 3; a file
// that is only unfinished, with nothing left unread, is no damage.
TEST(KeloBagCliTest, InfoAndPlayNameDamagedBagsWithWhatTheyCouldNotReadAndExit3) {
  TempDir dir;
  BagWriterOptions options;
  options.chunk_size = 200;
  options.compression = BagCompression::kNone;
  BagWriter writer(fileio::FilePath(dir.file("whole.kelobag.active")), options);
  writer.losses()->Add("/a", BagLossReason::kQueueFull, 3);
  writer.losses()->Add("/b", BagLossReason::kDiskFull, 1);
  for (long t = 0; t < 100; ++t)
    writer.append_message(1700000000000 + t * 10, 0, "/a", std::string(50, 'x'), "T");
  const std::string whole = writer.close();
  std::string bytes = ReadFile(whole);
  const auto write = [&](const std::string& name, size_t size) {  // the first `size` bytes
    std::ofstream(dir.file(name), std::ios::binary) << bytes.substr(0, size);
    return dir.file(name);
  };
  const std::string cut = write("cut.kelobag.active", bytes.size() / 2);
  // The magic and the header record: a recording that has not written a chunk yet.
  const uint64_t header_end = 8 + mcap::kPrefixSize + mcap::LoadU64(bytes.data() + 9);
  const std::string header_only = write("header_only.kelobag.active", header_end);
  const std::string first_cut = write("first_cut.kelobag.active", header_end + 60);  // inside its first chunk
  const std::string one_byte = write("one_byte.kelobag.active", header_end + 1);  // a record's first byte only
  bytes[bytes.size() / 3] ^= 0x40;  // inside a chunk
  const std::string damaged = write("damaged.kelobag", bytes.size());

  const RunResult clean = KeloBag(dir, {"info", whole, header_only});
  EXPECT_EQ(0, clean.code) << clean.err;
  // Once for the file and once for both together.
  const std::string lost = "lost:        4 (3 queue full, 1 disk full)\n";
  EXPECT_NE(clean.out.find(lost), clean.out.rfind(lost)) << clean.out;
  const RunResult info = KeloBag(dir, {"info", "--verify", damaged, cut});
  EXPECT_THAT(info, ExitsSaying(3, "info: " + damaged + ": 1 chunk ("));
  EXPECT_THAT(info.err, HasSubstr("info: " + cut + ": "));
  EXPECT_THAT(info.out, HasSubstr("unreadable:  1 chunk ("));
  EXPECT_THAT(KeloBag(dir, {"info", one_byte}).out, HasSubstr("unreadable:  1 bytes could not be read"));
  EXPECT_THAT(KeloBag(dir, {"info", "--json", "--verify", damaged}).out,
              testing::AllOf(HasSubstr("\"lost\" : 4"), HasSubstr("\"chunks\" : 1")));

  EXPECT_THAT(KeloBag(dir, {"play", damaged}),
              ExitsSaying(3, "play: " + damaged + ": recovered damaged bag: kept "));
  EXPECT_THAT(KeloBag(dir, {"play", header_only}), ExitsSaying(0, "nothing to play"));
  EXPECT_THAT(KeloBag(dir, {"play", first_cut}), ExitsSaying(3, first_cut + ": no messages to read; "));
}

// Catches a range taken from one bag only, and a timeline that stands still through a gap.
// Off a terminal the timeline is a line a second and the last one, never a redraw per batch.
TEST(KeloBagCliTest, PlaysARangeOfSeveralFilesAtWallClockPaceAndSkipsWhatItCannotRead) {
  TempDir dir;
  const std::string first = WriteBag(dir, "first", 0, 2), second = WriteBag(dir, "second", 4000, 1);
  const auto started = std::chrono::steady_clock::now();
  const RunResult run =
      KeloBag(dir, {"play", "--start", "2", "--duration", "3", second, dir.file("missing.kelobag"), first});
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  EXPECT_THAT(run, ExitsSaying(2, dir.file("missing.kelobag")));  // one file could not be used at all
  EXPECT_EQ(1u, Lines(run.err)) << run.err;
  // 2 to 5 s: the first bag's 3 messages at 2 s, and the second bag's 16.
  EXPECT_THAT(run.out, HasSubstr("played 19 messages (not published: "));
  EXPECT_THAT(run.out, HasSubstr("[RUNNING]  Bag Time: 1700000005000   Duration: 3.000000 / 3.000000\n"));
  EXPECT_THAT(run.out, testing::Not(HasSubstr("\r")));
  EXPECT_GE(took, 3.0);
  int lines = 0;
  bool inside = false;  // the gap between 2 and 4 s
  const std::regex shown("Bag Time: (\\d+)");
  for (std::sregex_iterator it(run.out.begin(), run.out.end(), shown), end; it != end; ++it, ++lines)
    inside = inside || std::abs(std::stol((*it)[1]) - 1700000003000) < 1000;
  EXPECT_TRUE(inside) << run.out;
  EXPECT_LE(lines, static_cast<int>(took) + 2) << run.out;  // a line a second and the last, of 19 batches

  // Topics are chosen by whole-name regular expressions: /a's 11 messages, not /b's 3 or /c's 2;
  // at half the pace, the bag's second takes two.
  const auto slow = std::chrono::steady_clock::now();
  const RunResult chosen = KeloBag(dir, {"play", "--rate", "0.5", "--topics", "/[ab]", "--exclude", "/b", second});
  EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - slow).count(), 2.0);
  EXPECT_THAT(chosen.out, HasSubstr("played 11 messages")) << chosen.err;
  const RunResult none = KeloBag(dir, {"play", "--exclude", ".*", second});
  EXPECT_EQ("2 play: no topic of the bags is selected by --topics and --exclude\n", std::to_string(none.code) + " " + none.err);
  // Ctrl-C ends playback at once, with the exit code of a process the signal ended.
  testing_support::Subprocess interrupted({kKeloBag, "play", WriteBag(dir, "long", 0, 60)}, dir.file("long"));
  ASSERT_TRUE(interrupted.Prints("[RUNNING]"));
  interrupted.Signal(SIGINT);
  EXPECT_EQ(128 + SIGINT, interrupted.Wait(20000));
  EXPECT_THAT(KeloBag(dir, {"play", dir.file("missing.kelobag")}), ExitsSaying(2, "nothing to play"));
}

// `args` run with a pseudo-terminal as their controlling terminal on the descriptors `fds`
// (the others of 0, 1, 2 go to /dev/null); the screen is what they wrote on it.
class OnTerminal {
 public:
  explicit OnTerminal(std::vector<std::string> args, const std::vector<int>& fds = {0, 1, 2}) {
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    if ((pid_ = forkpty(&master_, nullptr, nullptr, nullptr)) == 0) {
      const int null = open("/dev/null", O_RDWR);
      for (int to : {0, 1, 2})
        if (!std::count(fds.begin(), fds.end(), to)) dup2(null, to);
      execv(argv[0], argv.data());
      _exit(127);
    }
    EXPECT_GT(pid_, 0);
  }
  ~OnTerminal() {
    if (status_ == -1) kill(pid_, SIGKILL), waitpid(pid_, &status_, 0);
    close(master_);
  }
  // Reads the screen until `done`, at most 20 s: the program never blocks on a full terminal.
  bool Until(const std::function<bool()>& done) {
    return testing_support::WaitFor([&] {
      char bytes[4096];
      pollfd fd = {master_, POLLIN, 0};
      for (ssize_t n; poll(&fd, 1, 0) > 0 && (n = read(master_, bytes, sizeof(bytes))) > 0;) screen_.append(bytes, n);
      return done();
    }, 20000);
  }
  bool Shows(const std::string& text) { return Until([&] { return screen_.find(text) != std::string::npos; }); }
  void Type(const std::string& keys) { ASSERT_EQ(static_cast<ssize_t>(keys.size()), write(master_, keys.data(), keys.size())); }
  // The exit code, or -1 when the program did not exit normally within 20 s.
  int Exit() {
    Until([&] { return status_ != -1 || waitpid(pid_, &status_, WNOHANG) == pid_; });
    Until([] { return true; });  // what it wrote last
    return status_ != -1 && WIFEXITED(status_) ? WEXITSTATUS(status_) : -1;
  }
  const std::string& screen() const { return screen_; }

 private:
  int master_ = -1;
  pid_t pid_ = -1;
  int status_ = -1;
  std::string screen_;
};

// On a terminal, --paused waits for a key, an arrow seeks, q quits at once, and the end ends.
TEST(KeloBagCliTest, PlayOnATerminalStartsPausedAndTakesKeys) {
  TempDir dir;
  OnTerminal play({kKeloBag, "play", "--paused", WriteBag(dir, "keys", 0, 60)});
  EXPECT_TRUE(play.Shows("[PAUSED ]  Bag Time: 1700000000000 ")) << play.screen();
  // A seek moves the timeline and keeps the pause; the summary is not printed again.
  play.Type("\x1b[C");
  EXPECT_TRUE(play.Shows("[PAUSED ]  Bag Time: 1700000005000 ")) << play.screen();
  EXPECT_EQ(play.screen().find("topic:"), play.screen().rfind("topic:")) << play.screen();
  play.Type("q");
  EXPECT_EQ(0, play.Exit()) << play.screen();
  EXPECT_THAT(play.screen(), HasSubstr("\r\nquit\r\n"));
  // Played to its end on a terminal, it ends by itself too.
  OnTerminal to_the_end({kKeloBag, "play", WriteBag(dir, "short", 0, 0)});
  EXPECT_EQ(0, to_the_end.Exit()) << to_the_end.screen();
}

// A bus that fails (here a log file that ends) stops the recording with a line that says so
// and a non-zero exit; what came before is kept, where -o says: an existing folder, with or
// without its slash, or the very file named. Catches --max-files deleting the wrong parts,
// or none: 600 KB messages with --max-size 1 make a part each; the oldest completed one
// goes, the last completed one and the final one stay.
TEST(KeloBagCliTest, RecordStopsWhenTheBusFailsAndKeepsWhatItIsAskedFor) {
  TempDir dir;
  lcm_eventlog_t* log = lcm_eventlog_create(dir.file("bus.lcmlog").c_str(), "w");
  std::vector<char> data(600 << 10, 'x');
  char channel[] = "/seq";
  char empty[] = "/empty";  // the last message has nothing to store: lost, and said on which topic
  for (int i = 0; i < 4; ++i) {
    lcm_eventlog_event_t event{i, 1700000000000000L + i * 1500000L, i < 3 ? 4 : 6, i < 3 ? 600 << 10 : 0,
                               i < 3 ? channel : empty, data.data()};
    ASSERT_TRUE(log != nullptr && lcm_eventlog_write_event(log, &event) == 0);
  }
  lcm_eventlog_destroy(log);
  const std::string at_once = "file://" + dir.file("bus.lcmlog") + "?mode=r&speed=0";
  ASSERT_EQ(0, mkdir(dir.file("plain").c_str(), 0755));
  for (const std::string& output : {dir.file("rec") + "/", dir.file("plain"), dir.file("one.kelobag")}) {
    const RunResult run = KeloBag(dir, {"record", "--url", at_once, "-a", "-o", output});
    EXPECT_EQ(1, run.code) << output;
    EXPECT_EQ("record: the LCM bus failed; stopping\n", run.err);
    EXPECT_THAT(run.out, HasSubstr("lost on /empty: 1 empty\nreceived 4 messages"));
  }
  for (const char* folder : {"rec", "plain"}) EXPECT_EQ(1u, testing_support::ListDir(dir.file(folder)).size());
  // Channels chosen by whole-name patterns, and left out by them.
  for (const auto& [args, received] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"--regex", "/s.q"}, "received 3 messages"}, {{"-a", "--exclude", "/s.*"}, "received 1 messages"}}) {
    std::vector<std::string> command = {"record", "--url", at_once, "-o", dir.file("chosen") + "/"};
    command.insert(command.end(), args.begin(), args.end());
    EXPECT_THAT(KeloBag(dir, command).out, HasSubstr(received)) << args[1];
  }
  // Each file says how it was recorded, its messages at the times the bus received them: now, to a day.
  EXPECT_THAT(KeloBag(dir, {"info", dir.file("one.kelobag")}).out,
              testing::AllOf(HasSubstr("command:     kelo_bag record --url 'file://"),
                             ContainsRegex("start: .* \\(" + std::to_string(time(nullptr) / 100000) + "[0-9]{8} ms\\)"),
                             HasSubstr("\nbus:         " + at_once + "\n"), HasSubstr("\nmode:        plain\n")));

  const RunResult parts =
      KeloBag(dir, {"record", "--url", at_once, "-a", "--max-size", "1", "--max-files", "1", "-o", dir.file("parts") + "/"});
  const std::vector<std::string> left = testing_support::ListDir(dir.file("parts"));
  ASSERT_EQ(2u, left.size()) << parts.out;
  const std::string first_part = left[0].substr(0, left[0].rfind('_')) + "_0.kelobag";
  EXPECT_THAT(parts.out, HasSubstr("deleted " + dir.file("parts") + "/" + first_part + " (--max-files 1)\n"));
  // A second signal while the first stop is under way ends the recorder at once and says what
  // that leaves; the process is stopped while both are sent, so they come together.
  const std::string slowly = "file://" + dir.file("bus.lcmlog") + "?mode=r&speed=0.001";
  testing_support::Subprocess forced({kKeloBag, "record", "--url", slowly, "-a", "-o", dir.file("f") + "/"},
                                     dir.file("forced"));
  ASSERT_TRUE(forced.Prints("Ctrl-C stops"));
  for (int signal_number : {SIGSTOP, SIGINT, SIGTERM, SIGCONT}) forced.Signal(signal_number);
  EXPECT_EQ(130, forced.Wait(20000));
  // (LCM's own threads, interrupted by the same signals, may add a line of theirs after it.)
  EXPECT_THAT(forced.Stderr(), HasSubstr("\nstopped at once: files being written stay .active (readable up to "
                                         "their last chunk)\n"));
  EXPECT_EQ(forced.Stderr().find('\0'), std::string::npos);  // nothing written past the text
  EXPECT_THAT(KeloBag(dir, {"record", "-a", "-o", "/proc/no/"}), ExitsSaying(1, "; nothing recorded"));
  setenv("LCM_DEFAULT_URL", "nosuch://", 1);  // a default bus that cannot be opened: no fault of the command line
  for (const std::vector<std::string>& args : {std::vector<std::string>{"record", "-a"}, {"play", "--publish", "a.kelobag"}})
    EXPECT_THAT(KeloBag(dir, args), ExitsSaying(1, ": cannot open the LCM bus at \"nosuch://\"")) << args[0];
  unsetenv("LCM_DEFAULT_URL");
}

// Catches ranges and topics not applied, merges out of time order, types lost on the way,
// an existing file overwritten, and a recovery that hides what it could not read.
TEST(KeloBagCliTest, FilterMergeCatAndRecoverCopyWhatTheyAreAskedFor) {
  TempDir dir;
  const std::string first = WriteBag(dir, "first", 0, 2), second = WriteBag(dir, "second", 3000, 1);
  const RunResult filter = KeloBag(dir, {"filter", "-o", dir.file("f.kelobag"), "--start", "1", "--duration", "1",
                                       "--topics", "/a", second, first});
  EXPECT_EQ("", filter.err) << "off a terminal, no progress bar";
  const std::vector<BagMessage> filtered = testing_support::ReadAll(dir.file("f.kelobag"));
  ASSERT_EQ(11u, filtered.size()) << filter.out;  // /a at 1.0, 1.1, ... 2.0 s
  EXPECT_EQ(1700000001000, filtered.front().time);
  EXPECT_EQ(1700000002000, filtered.back().time);
  EXPECT_EQ("lcm:0x00000000000000aa", filtered.back().type);
  EXPECT_EQ(1u, BagReader(dir.file("f.kelobag")).topics().size()) << "only the chosen topic is declared";
  EXPECT_EQ(2, KeloBag(dir, {"filter", "-o", dir.file("f.kelobag"), first}).code);  // never overwritten

  EXPECT_EQ(0, KeloBag(dir, {"merge", "-o", dir.file("m.kelobag"), second, first}).code);
  const std::vector<BagMessage> merged = testing_support::ReadAll(dir.file("m.kelobag"));
  ASSERT_EQ(44u, merged.size());
  for (size_t i = 1; i < merged.size(); ++i) ASSERT_LE(merged[i - 1].time, merged[i].time) << i;
  EXPECT_EQ("v2", merged.back().type);

  const RunResult cat = KeloBag(dir, {"cat", "--json", "--topics", "/c", first});
  EXPECT_EQ(2u, Lines(cat.out)) << cat.out;
  Json::Value line;
  ASSERT_TRUE(Json::Reader().parse(cat.out.substr(0, cat.out.find('\n')), line)) << cat.out;
  for (const auto& [key, want] : {std::pair{"type", "v1"}, {"preview", "\"c\""}, {"size", "1"}})
    EXPECT_EQ(want, line[key].asString()) << key;
  const RunResult none = KeloBag(dir, {"cat", "--topics", "/none", first});
  EXPECT_EQ(2, none.code);
  EXPECT_EQ("cat: no topic of the bags is selected by --topics and --exclude\n", none.err);
  BagWriter quoted(fileio::FilePath(dir.file("quoted.kelobag.active")));
  quoted.append_message(1700000000000, 0, "/q", "say \"hi\" \\o/ 32 bytes, all shown", "T");  // no "..."
  EXPECT_THAT(KeloBag(dir, {"cat", quoted.close()}).out,
              HasSubstr(" \"say \\\"hi\\\" \\\\o/ 32 bytes, all shown\"\n"));

  // A bag cut in its middle: what could still be read is saved whole, the rest named.
  const std::string bytes = ReadFile(second), cut = dir.file("cut.kelobag");
  std::ofstream(cut, std::ios::binary) << bytes.substr(0, bytes.size() / 2);
  const size_t readable = BagReader(cut).count();
  ASSERT_GT(readable, 0u);
  EXPECT_THAT(KeloBag(dir, {"recover", "-o", dir.file("r.kelobag"), cut}), ExitsSaying(3, cut + ": recovered"));
  EXPECT_EQ(readable, testing_support::ReadAll(dir.file("r.kelobag")).size());
  EXPECT_FALSE(BagReader(dir.file("r.kelobag")).file_info().recovered);

  // On a terminal a copy shows how far it has come, and clears its bar at the end.
  OnTerminal merge({kKeloBag, "merge", "-o", dir.file("m2.kelobag"), second, first}, {2});
  EXPECT_EQ(0, merge.Exit());
  EXPECT_THAT(merge.screen(), ContainsRegex("\r\\[[# ]{40}\\] +[0-9]+%  [0-9]+ messages"));
  EXPECT_THAT(merge.screen(), testing::EndsWith("\r\033[K"));
}

}  // namespace
}  // namespace kelo
