#include "tools/kelo_bag/terminal_keys.h"

#include <fcntl.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kelo {
namespace cli {
namespace {

std::vector<Key> Decode(const std::string& bytes) {
  KeyDecoder decoder;
  std::vector<Key> keys;
  decoder.Feed(bytes.data(), bytes.size(), &keys);
  return keys;
}

TEST(KeyDecoderTest, DecodesEveryPlaybackKeyInBothArrowModes) {
  EXPECT_EQ(
      (std::vector<Key>{Key::kPause, Key::kStep, Key::kLoop, Key::kQuit, Key::kStep, Key::kLoop, Key::kQuit}),
      Decode(" slqSLQ"));
  EXPECT_EQ((std::vector<Key>{Key::kLeft, Key::kRight, Key::kLeft, Key::kRight}),
            Decode("\033[D\033[C\033OD\033OC"));
}

TEST(KeyDecoderTest, IgnoresOtherKeysAndSequences) {
  // Up and down, a modified arrow, a function key, letters, Enter, and Escape before a
  // letter and before q, which still counts.
  EXPECT_EQ((std::vector<Key>{Key::kQuit}), Decode("\033[A\033[B\033[1;5C\033[15~\033xab\n\033q"));
}

TEST(KeyDecoderTest, JoinsSequencesSplitAcrossReadsAtAnyByte) {
  const std::string bytes = "s\033[Cl\033OD q";
  const std::vector<Key> whole = Decode(bytes);
  ASSERT_EQ((std::vector<Key>{Key::kStep, Key::kRight, Key::kLoop, Key::kLeft, Key::kPause, Key::kQuit}),
            whole);
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    KeyDecoder decoder;
    std::vector<Key> keys;
    decoder.Feed(bytes.data(), cut, &keys);
    decoder.Feed(bytes.data() + cut, bytes.size() - cut, &keys);
    EXPECT_EQ(whole, keys) << "cut at " << cut;
  }
}

TEST(RawTerminalTest, LeavesWhatIsNoTerminalAlone) {
  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  {
    RawTerminal raw(fds[0]);
    EXPECT_FALSE(raw.active());
  }
  close(fds[0]);
  close(fds[1]);
}

TEST(RawTerminalTest, DeliversKeysAtOnceWithoutEchoAndRestoresTheTerminal) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(0, grantpt(master));
  ASSERT_EQ(0, unlockpt(master));
  const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY);
  ASSERT_GE(terminal, 0);
  struct termios before;
  ASSERT_EQ(0, tcgetattr(terminal, &before));
  ASSERT_TRUE(before.c_lflag & ICANON);

  for (int round = 0; round < 2; ++round) {
    RawTerminal raw(terminal);
    ASSERT_TRUE(raw.active());
    struct termios during;
    ASSERT_EQ(0, tcgetattr(terminal, &during));
    EXPECT_FALSE(during.c_lflag & ICANON);
    EXPECT_FALSE(during.c_lflag & ECHO);
    EXPECT_TRUE(during.c_lflag & ISIG);  // Ctrl-C still interrupts
    // Without a line end, a key is readable at once.
    ASSERT_EQ(1, write(master, "q", 1));
    char c = 0;
    ASSERT_EQ(1, read(terminal, &c, 1));
    EXPECT_EQ('q', c);
    if (round == 1) RawTerminal::RestoreNow();  // as a signal handler would, before the destructor
  }
  struct termios after;
  ASSERT_EQ(0, tcgetattr(terminal, &after));
  EXPECT_EQ(before.c_lflag, after.c_lflag);
  close(terminal);
  close(master);
}

}  // namespace
}  // namespace cli
}  // namespace kelo
