#include "apps/client/view/release_key.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint16_t USAGE_X = USAGE_A + ('X' - 'A');

std::uint16_t letter(char upper) {
  return static_cast<std::uint16_t>(USAGE_A + (upper - 'A'));
}

struct Keys {
  ReleaseKey keys{USAGE_RIGHT_CTRL};
  bool forwarded(std::uint16_t usage, bool down) {
    const KeyVerdict verdict = keys.key(usage, down);
    EXPECT_EQ(verdict.command, ViewCommand::None);
    return verdict.forward;
  }
  ViewCommand command(std::uint16_t usage, bool down) {
    const KeyVerdict verdict = keys.key(usage, down);
    EXPECT_FALSE(verdict.forward);
    return verdict.command;
  }
};

TEST(ReleaseKey, OrdinaryKeysGoToTheHostWithTheirRepeats) {
  Keys k;
  EXPECT_TRUE(k.forwarded(USAGE_X, true));
  EXPECT_TRUE(k.forwarded(USAGE_X, true));
  EXPECT_TRUE(k.forwarded(USAGE_X, false));
  EXPECT_TRUE(k.forwarded(USAGE_LEFT_CTRL, true));
}

TEST(ReleaseKey, AloneItLetsGoOnceItIsReleased) {
  Keys k;
  EXPECT_EQ(k.command(USAGE_RIGHT_CTRL, true), ViewCommand::None);
  EXPECT_EQ(k.command(USAGE_RIGHT_CTRL, true), ViewCommand::None) << "its repeats are nothing";
  EXPECT_EQ(k.command(USAGE_RIGHT_CTRL, false), ViewCommand::LetGo);
}

TEST(ReleaseKey, WithALetterItIsACommandThatTheHostNeverSees) {
  const std::pair<char, ViewCommand> commands[] = {
      {'S', ViewCommand::Statistics},    {'F', ViewCommand::FullScreen},
      {'R', ViewCommand::RelativeMouse}, {'M', ViewCommand::Sound},
      {'C', ViewCommand::Clipboard},     {'Q', ViewCommand::Quit},
      {'H', ViewCommand::Help},          {'D', ViewCommand::SecureAttention}};
  for (const auto& [key, command] : commands) {
    Keys k;
    k.command(USAGE_RIGHT_CTRL, true);
    EXPECT_EQ(k.command(letter(key), true), command) << key;
    EXPECT_EQ(k.command(letter(key), true), ViewCommand::None) << "a repeat is no second command";
    EXPECT_EQ(k.command(letter(key), false), ViewCommand::None);
    EXPECT_EQ(k.command(USAGE_RIGHT_CTRL, false), ViewCommand::None) << "it was not alone";
  }
}

TEST(ReleaseKey, SeveralCommandsMayFollowWhileItIsHeld) {
  Keys k;
  k.command(USAGE_RIGHT_CTRL, true);
  EXPECT_EQ(k.command(letter('S'), true), ViewCommand::Statistics);
  EXPECT_EQ(k.command(letter('S'), false), ViewCommand::None);
  EXPECT_EQ(k.command(letter('S'), true), ViewCommand::Statistics);
}

TEST(ReleaseKey, WithAKeyThatIsNoCommandNothingHappensAnywhere) {
  Keys k;
  k.command(USAGE_RIGHT_CTRL, true);
  EXPECT_EQ(k.command(letter('X'), true), ViewCommand::None);
  EXPECT_EQ(k.command(USAGE_DELETE, true), ViewCommand::None);
  EXPECT_EQ(k.command(USAGE_RIGHT_CTRL, false), ViewCommand::None);
  EXPECT_EQ(k.command(USAGE_DELETE, false), ViewCommand::None) << "its release is ours too";
  EXPECT_TRUE(k.forwarded(USAGE_DELETE, true)) << "and the next press the host's";
}

TEST(ReleaseKey, ALetterReleasedAfterTheReleaseKeyStaysOurs) {
  Keys k;
  k.command(USAGE_RIGHT_CTRL, true);
  k.command(letter('S'), true);
  k.command(USAGE_RIGHT_CTRL, false);
  EXPECT_EQ(k.command(letter('S'), true), ViewCommand::None) << "its repeat";
  EXPECT_EQ(k.command(letter('S'), false), ViewCommand::None);
  EXPECT_TRUE(k.forwarded(letter('S'), true));
}

TEST(ReleaseKey, AKeyThatTheHostHoldsIsReleasedThereThoughTheReleaseKeyIsDown) {
  Keys k;
  EXPECT_TRUE(k.forwarded(USAGE_X, true));
  k.command(USAGE_RIGHT_CTRL, true);
  EXPECT_TRUE(k.forwarded(USAGE_X, true)) << "its repeats go on";
  EXPECT_TRUE(k.forwarded(USAGE_X, false));
  EXPECT_EQ(k.command(USAGE_RIGHT_CTRL, false), ViewCommand::LetGo);
}

TEST(ReleaseKey, LosingTheFocusForgetsWhatIsDown) {
  Keys k;
  EXPECT_TRUE(k.forwarded(USAGE_X, true));
  k.command(USAGE_RIGHT_CTRL, true);
  k.keys.focus_lost();
  EXPECT_EQ(k.command(USAGE_RIGHT_CTRL, false), ViewCommand::None);
  EXPECT_FALSE(k.forwarded(USAGE_X, false)) << "the host was told to release everything";
  EXPECT_TRUE(k.forwarded(letter('S'), true));
}

TEST(ReleaseKey, AReleaseWithoutAPressIsNothing) {
  Keys k;
  EXPECT_FALSE(k.forwarded(USAGE_X, false));
  EXPECT_EQ(k.command(USAGE_RIGHT_CTRL, false), ViewCommand::None);
}

TEST(ReleaseKey, KeysThatTheHostDoesNotKnowAreDropped) {
  Keys k;
  EXPECT_FALSE(k.forwarded(0, true));
  EXPECT_FALSE(k.forwarded(300, true));
}

TEST(ReleaseKey, AnotherKeyCanBeChosenAndRightCtrlThenIsTheHosts) {
  ReleaseKey keys(*release_key_by_name("scroll-lock"));
  EXPECT_TRUE(keys.key(USAGE_RIGHT_CTRL, true).forward);
  EXPECT_FALSE(keys.key(0x47, true).forward);
  EXPECT_EQ(keys.key(0x47, false).command, ViewCommand::LetGo);
}

TEST(ReleaseKeyNames, EveryNameIsFoundAndHasALabel) {
  const std::string names = release_key_names();
  std::size_t count = 0;
  for (std::size_t from = 0; from < names.size();) {
    const std::size_t comma = std::min(names.find(", ", from), names.size());
    const auto usage = release_key_by_name(names.substr(from, comma - from));
    ASSERT_TRUE(usage) << names.substr(from, comma - from);
    EXPECT_NE(release_key_label(*usage), "");
    from = comma + 2;
    ++count;
  }
  EXPECT_EQ(count, 9U);
  EXPECT_FALSE(release_key_by_name("any"));
}

TEST(Scancodes, OfTheKeyboardPageAreTheUsagesThemselves) {
  for (int code = 4; code <= 231; ++code) EXPECT_EQ(usage_of_scancode(code), code);
}

TEST(Scancodes, OfMediaKeysAreTheKeysThatHostsKnow) {
  EXPECT_EQ(usage_of_scancode(261), 0xE8);  // play
  EXPECT_EQ(usage_of_scancode(259), 0xEA);  // previous
  EXPECT_EQ(usage_of_scancode(258), 0xEB);  // next
  EXPECT_EQ(usage_of_scancode(262), 0xEF);  // mute
  EXPECT_EQ(usage_of_scancode(127), 0x7F);  // mute of the keyboard page
}

TEST(Scancodes, OthersAreNothing) {
  for (const int code : {-1, 0, 1, 3, 232, 256, 257, 511}) EXPECT_EQ(usage_of_scancode(code), 0);
}

}  // namespace
