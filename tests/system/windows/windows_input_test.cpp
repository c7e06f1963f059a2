// A client's keyboard and mouse at a program of the Windows host's desktop. On Wine 10: before it,
// keys that are sent by scan code mean nothing.
#include <gmock/gmock.h>

#include <cmath>
#include <sstream>

#include "connection/clock.h"
#include "tests/system/desk_support.h"
#include "tests/system/windows/windows_host_support.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace system_test {
namespace {

constexpr int WIDTH = 1280;
constexpr int HEIGHT = 720;

class WindowsInputTest : public WindowsHostTest {
 protected:
  static void SetUpTestSuite() { open_desk({.ten = true}); }

  void SetUp() override {
    WindowsHostTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    window_ = &open("input_log.exe", {}, "has focus");
    serve();
  }
  void TearDown() override {
    hand_.reset();
    WindowsHostTest::TearDown();
  }

  // The client that stays until it is told otherwise, once it streams.
  ClientHand& start_hand() {
    hand_ = std::make_unique<ClientHand>(
        at(client_place_, "system_client_hand",
           {(directory_ / "client").string(), host_address(), "1", "0"}),
        environment_);
    EXPECT_TRUE(hand_->has_said("screen 0 streams")) << hand_->output();
    return *hand_;
  }

  // What the window was told, of these kinds, up to this line; waits for it.
  std::vector<std::string> told(const std::string& kind, const std::string& last) {
    EXPECT_TRUE(window_->wait_for_output(last + "\r\n", seconds(20))) << window_->output();
    std::vector<std::string> events;
    std::istringstream lines(window_->output());
    for (std::string line; std::getline(lines, line);) {
      line.erase(line.find_last_not_of('\r') + 1);
      if (line.starts_with(kind)) events.push_back(line);
    }
    return events;
  }

  void expect_exact_clicks(int width, int height) {
    const int spots[][2] = {
        {0, 0},  {width - 1, 0},          {0, height - 1},         {width - 1, height - 1},
        {1, 1},  {width - 2, height - 2}, {width / 3, height / 5}, {width / 2, height / 2},
        {100, 7}};
    std::vector<std::string> arguments = {"--width", std::to_string(width)};
    std::vector<std::string> expected;
    for (const auto& [x, y] : spots) {
      arguments.push_back("--click");
      arguments.push_back(std::to_string(x) + "," + std::to_string(y));
      const std::string pixel = on_screen(x, width, WIDTH) + "," + on_screen(y, height, HEIGHT);
      expected.push_back("button 1 down " + pixel);
      expected.push_back("button 1 up " + pixel);
    }
    stream(0.1, arguments);
    EXPECT_EQ(report()["stream"]["width"], width);
    EXPECT_THAT(told("button", expected.back()), ElementsAreArray(expected));
  }
  // Ends of the picture are ends of the screen.
  static std::string on_screen(int at, int of_stream, int of_screen) {
    return std::to_string(std::lround(at * (of_screen - 1.0) / (of_stream - 1)));
  }

  ChildProcess* window_ = nullptr;
  std::unique_ptr<ClientHand> hand_;
};

TEST_F(WindowsInputTest, AProgramGetsTheTypedLineCharacterForCharacter) {
  std::string line;
  for (char c = ' '; c <= '~'; ++c) line += c;
  line += "  The quick (brown) fox: \"jumps\" over 10% of {lazy} dogs & returns~";
  stream(0.1, {"--click", "100,100", "--type", line + "\n"});
  std::vector<std::string> expected;
  for (const char c : line) expected.push_back(std::string("char ") + c);
  expected.emplace_back("char ");  // the line's end, which is a carriage return
  std::vector<std::string> chars = told("char", "key 0d 1c up");
  EXPECT_THAT(chars, ElementsAreArray(expected));
}

TEST_F(WindowsInputTest, AProgramGetsTheKeysThatTypeTheText) {
  stream(0.1, {"--type", "aA1\n"});
  EXPECT_THAT(told("key", "key 0d 1c up"),
              ElementsAre("key 41 1e down", "key 41 1e up",                                    // a
                          "key 10 2a down", "key 41 1e down", "key 41 1e up", "key 10 2a up",  // A
                          "key 31 02 down", "key 31 02 up", "key 0d 1c down", "key 0d 1c up"));
}

TEST_F(WindowsInputTest, ClicksComeToTheExactPixelAtFullSize) {
  expect_exact_clicks(WIDTH, HEIGHT);
}

TEST_F(WindowsInputTest, ClicksIntoAScaledStreamComeToTheExactPixelAtTheSamePlace) {
  expect_exact_clicks(WIDTH / 2, HEIGHT / 2);
}

TEST_F(WindowsInputTest, TheWheelAndEveryButtonArrive) {
  ClientHand& hand = start_hand();
  hand.act("0 to 0 0");
  for (const char* command :
       {"0 wheel 0 120", "0 wheel 0 -240", "0 wheel 120 0", "0 button 2 down", "0 button 2 up",
        "0 button 3 down", "0 button 3 up", "0 button 4 down", "0 button 4 up", "0 button 5 down",
        "0 button 5 up"})
    hand.act(command);
  told("button", "button 5 up 0,0");
  EXPECT_THAT(told("wheel", "wheel 120"), ElementsAre("wheel 120", "wheel -240"));
  EXPECT_EQ(hand.leave(), 0);
}

// The host counts a client as gone after 3 s of silence, which it looks for each 100 ms.
TEST_F(WindowsInputTest, KilledClientsKeysAndButtonsAreReleasedWithin3500Ms) {
  ClientHand& hand = start_hand();
  hand.act("0 to 1000 1000");
  hand.act("0 key 225 down");  // the left shift key, by its USB usage
  hand.act("0 key 4 down");    // A
  hand.act("0 button 1 down");
  ASSERT_TRUE(window_->wait_for_output("button 1 down", seconds(20))) << window_->output();
  ASSERT_NE(window_->output().find("key 41 1e down"), std::string::npos) << window_->output();
  const std::uint64_t killed_us = lund_now_us();
  hand.kill();
  for (const char* release : {"button 1 up", "key 41 1e up", "key 10 2a up"})
    EXPECT_TRUE(window_->wait_for_output(release, seconds(20))) << window_->output();
  const double after_ms = static_cast<double>(lund_now_us() - killed_us) / 1e3;
  std::printf("released %.0f ms after the client was killed\n", after_ms);
  EXPECT_LE(after_ms, 3'500);
  EXPECT_NE(host_log().find("client silent for 3 s"), std::string::npos);
}

}  // namespace
}  // namespace system_test
