// A client's keyboard and mouse at a program of the Windows host's desktop. On Wine 10: before it,
// keys that are sent by scan code mean nothing.
#include <gmock/gmock.h>

#include <cmath>
#include <sstream>

#include "connection/clock.h"
#include "tests/system/desk_support.h"
#include "tests/system/windows/windows_host_support.h"
#include "tests/system/windows/x_ping_support.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

namespace system_test {
namespace {

constexpr int WIDTH = 1280;
constexpr int HEIGHT = 720;

// One window sees the whole suite: with another, what X said to the former could come too late.
class WindowsInputTest : public WindowsHostTest {
 protected:
  static void SetUpTestSuite() {
    open_desk({.ten = true});
    if (has_desk()) window_ = desk().start("input_log.exe", {});
  }
  static void TearDownTestSuite() {
    if (window_) end(window_.get());
    window_.reset();
    WindowsHostTest::TearDownTestSuite();
  }

  void SetUp() override {
    WindowsHostTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_TRUE(window_->wait_for_output("has focus", seconds(30))) << window_->output();
    user_ = std::make_unique<User>(desk().display());
    ping_ = std::make_unique<XPing>(desk().display());
    serve();
    settle();
  }
  void TearDown() override {
    if (HasFailure() && hand_) ADD_FAILURE() << "the client said:\n" << hand_->output();
    if (HasFailure() && window_) ADD_FAILURE() << "the window said:\n" << window_->output();
    hand_.reset();
    ping_.reset();
    user_.reset();
    WindowsHostTest::TearDown();
  }

  // The client that stays until it is told otherwise, once it streams.
  ClientHand& start_hand(int width = WIDTH) {
    hand_ = std::make_unique<ClientHand>(
        at(client_place_, "system_client_hand",
           {(directory_ / "client").string(), host_address(), "1", std::to_string(width)}),
        environment_);
    EXPECT_TRUE(hand_->has_said("screen 0 streams")) << hand_->output();
    return *hand_;
  }

  // Wine moves X's pointer after its own, and takes X's word for where it is, from the desktop's
  // program as from the window's: until both have taken all that X told them, a click could come to
  // where the pointer was before. Then a turn of X's wheel brings its place.
  void settle() {
    ping_->ping_under_pointer();
    const std::size_t from = window_->output().size();
    user_->click(X_WHEEL_UP);
    EXPECT_TRUE(window_->wait_for_output("wheel 120\r\n", seconds(20), from));
    ping_->ping_under_pointer();
    heard_ = window_->output().size();
  }
  // By X's hand: a client that points there then moves nothing.
  void put_pointer(int x, int y) {
    user_->move(x, y);
    settle();
  }

  // What the window was told since then, of these kinds, up to this line; waits for it.
  std::vector<std::string> told(const std::string& kind, const std::string& last) {
    EXPECT_TRUE(window_->wait_for_output(last + "\r\n", seconds(20), heard_));
    std::vector<std::string> events;
    std::istringstream lines(window_->output().substr(heard_));
    for (std::string line; std::getline(lines, line);) {
      line.erase(line.find_last_not_of('\r') + 1);
      if (line.starts_with(kind)) events.push_back(line);
    }
    return events;
  }

  static std::string on_16_bits(int at, int size) {
    return std::to_string(std::lround(at * 65'535.0 / (size - 1)));
  }
  void point_at(ClientHand& hand, int x, int y) {
    hand.act("0 to " + on_16_bits(x, WIDTH) + " " + on_16_bits(y, HEIGHT));
    EXPECT_TRUE(comes_true([&] { return user_->pointer_x() == x && user_->pointer_y() == y; }))
        << "the pointer is at " << user_->pointer_x() << "," << user_->pointer_y();
    settle();
  }

  static constexpr int X_WHEEL_UP = 4;  // its button
  static std::unique_ptr<ChildProcess> window_;
  std::size_t heard_ = 0;
  std::unique_ptr<User> user_;
  std::unique_ptr<XPing> ping_;
  std::unique_ptr<ClientHand> hand_;
};

std::unique_ptr<ChildProcess> WindowsInputTest::window_;

TEST_F(WindowsInputTest, AProgramGetsTheTypedLineCharacterForCharacter) {
  std::string line;
  for (char c = ' '; c <= '~'; ++c) line += c;
  line += "  The quick (brown) fox: \"jumps\" over 10% of {lazy} dogs & returns~";
  put_pointer(100, 100);
  stream(0.1, {"--click", "100,100", "--type", line + "\n"});
  EXPECT_THAT(told("button", "button 1 up 100,100"),
              ElementsAre("button 1 down 100,100", "button 1 up 100,100"));
  std::vector<std::string> expected;
  for (const char c : line) expected.push_back(std::string("char ") + c);
  expected.emplace_back("char ");  // the line's end, which is a carriage return
  EXPECT_THAT(told("char", "key 0d 1c up"), ElementsAreArray(expected));
}

TEST_F(WindowsInputTest, AProgramGetsTheKeysThatTypeTheText) {
  stream(0.1, {"--type", "aA1\n"});
  EXPECT_THAT(told("key", "key 0d 1c up"),
              ElementsAre("key 41 1e down", "key 41 1e up",                                    // a
                          "key 10 2a down", "key 41 1e down", "key 41 1e up", "key 10 2a up",  // A
                          "key 31 02 down", "key 31 02 up", "key 0d 1c down", "key 0d 1c up"));
}

TEST_F(WindowsInputTest, ClicksComeToTheExactPixel) {
  const int spots[][2] = {
      {0, 0}, {WIDTH - 1, 0},          {0, HEIGHT - 1},         {WIDTH - 1, HEIGHT - 1},
      {1, 1}, {WIDTH - 2, HEIGHT - 2}, {WIDTH / 3, HEIGHT / 5}, {100, 7}};
  ClientHand& hand = start_hand();
  for (const auto& [x, y] : spots) {
    point_at(hand, x, y);
    hand.act("0 button 1 down");
    hand.act("0 button 1 up");
    const std::string pixel = std::to_string(x) + "," + std::to_string(y);
    EXPECT_THAT(told("button", "button 1 up " + pixel),
                ElementsAre("button 1 down " + pixel, "button 1 up " + pixel));
  }
  EXPECT_EQ(hand.leave(), 0);
}

TEST_F(WindowsInputTest, AClickIntoAScaledStreamComesToThePixelAtTheSamePlace) {
  put_pointer(WIDTH - 1, HEIGHT - 1);
  stream(0.1, {"--width", std::to_string(WIDTH / 2), "--click", "639,359"});
  EXPECT_EQ(report()["stream"]["width"], WIDTH / 2);
  EXPECT_THAT(told("button", "button 1 up 1279,719"),
              ElementsAre("button 1 down 1279,719", "button 1 up 1279,719"));
}

TEST_F(WindowsInputTest, TheWheelAndEveryButtonArrive) {
  ClientHand& hand = start_hand();
  point_at(hand, 300, 200);
  for (const char* command :
       {"0 wheel 0 120", "0 wheel 0 -240", "0 wheel 120 0", "0 button 2 down", "0 button 2 up",
        "0 button 3 down", "0 button 3 up", "0 button 4 down", "0 button 4 up", "0 button 5 down",
        "0 button 5 up"})
    hand.act(command);
  EXPECT_THAT(told("", "button 5 up 300,200"),
              ElementsAre("wheel 120", "wheel -240", "hwheel 120", "button 2 down 300,200",
                          "button 2 up 300,200", "button 3 down 300,200", "button 3 up 300,200",
                          "button 4 down 300,200", "button 4 up 300,200", "button 5 down 300,200",
                          "button 5 up 300,200"));
  EXPECT_EQ(hand.leave(), 0);
}

TEST_F(WindowsInputTest, ThePointersPlaceReachesTheClientOn16Bits) {
  ClientHand& hand = start_hand();
  const int places[][2] = {{0, 0}, {WIDTH - 1, HEIGHT - 1}, {1, 1}, {640, 360}, {123, 45}};
  for (const auto& [x, y] : places) {
    user_->move(x, y);
    EXPECT_TRUE(hand.says("screen 0 pointer " + on_16_bits(x, WIDTH) + "," + on_16_bits(y, HEIGHT) +
                          " shown"))
        << x << "," << y;
  }
  EXPECT_EQ(hand.leave(), 0);
}

// The host counts a client as gone after 3 s of silence, which it looks for each 100 ms.
TEST_F(WindowsInputTest, KilledClientsKeysAndButtonsAreReleasedWithin3500Ms) {
  ClientHand& hand = start_hand();
  point_at(hand, 20, 10);
  hand.act("0 key 225 down");  // the left shift key, by its USB usage
  hand.act("0 key 4 down");    // A
  hand.act("0 button 1 down");
  EXPECT_THAT(told("", "button 1 down 20,10"),
              ElementsAre("key 10 2a down", "key 41 1e down", "char A", "button 1 down 20,10"));
  heard_ = window_->output().size();
  const std::uint64_t killed_us = lund_now_us();
  hand.kill();
  EXPECT_THAT(told("", "button 1 up 20,10"),
              ElementsAre("key 41 1e up", "key 10 2a up", "button 1 up 20,10"));
  const double after_ms = static_cast<double>(lund_now_us() - killed_us) / 1e3;
  std::printf("released %.0f ms after the client was killed\n", after_ms);
  EXPECT_LE(after_ms, 3'500);
  EXPECT_NE(host_log().find("client silent for 3 s"), std::string::npos);
}

}  // namespace
}  // namespace system_test
