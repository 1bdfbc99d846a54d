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

// Every playback key, both arrow modes, and what is ignored: up and down, a modified arrow, a
// function key, other letters, Enter, and Escape before a letter and before q, which still
// counts. Sequences split across reads at any byte are joined.
TEST(KeyDecoderTest, DecodesThePlaybackKeysWhereverTheReadsSplitThem) {
  const std::string bytes = " slqSLQ\033[D\033[C\033OD\033OC\033[A\033[B\033[1;5C\033[15~\033xab\n\033q";
  const std::vector<Key> want = {Key::kPause, Key::kStep, Key::kLoop,  Key::kQuit,  Key::kStep, Key::kLoop,
                                 Key::kQuit,  Key::kLeft, Key::kRight, Key::kLeft, Key::kRight, Key::kQuit};
  for (size_t cut = 0; cut <= bytes.size(); ++cut) {
    KeyDecoder decoder;
    std::vector<Key> keys;
    decoder.Feed(bytes.data(), cut, &keys);
    decoder.Feed(bytes.data() + cut, bytes.size() - cut, &keys);
    EXPECT_EQ(want, keys) << "cut at " << cut;
  }
}

TEST(RawTerminalTest, DeliversKeysAtOnceWithoutEchoAndRestoresTheTerminal) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
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
    if (round == 1) {
      RawTerminal::RestoreNow();  // as a signal handler would, before the destructor
      ASSERT_EQ(0, tcgetattr(terminal, &during));
      EXPECT_EQ(before.c_lflag, during.c_lflag);
    }
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
