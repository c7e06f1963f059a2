#include "tests/system/desk_support.h"

#include <signal.h>

#include <cmath>
#include <sstream>

namespace system_test {
namespace {

constexpr seconds PATIENCE{15};

// Ends of a monitor are ends of its picture, whatever the size of that.
int pixel(int at, int stream_size, int size) {
  return static_cast<int>(std::lround(at * (size - 1.0) / (stream_size - 1)));
}

}  // namespace

// ---- The hand

ClientHand::ClientHand(const std::vector<std::string>& command, const Environment& environment)
    : process_(command, environment, ChildProcess::Streams::Terminal) {}

bool ClientHand::says(const std::string& text) {
  if (!process_.wait_for_output(text, PATIENCE, heard_)) return false;
  const std::size_t at = process_.output().find(text, heard_);
  if (!process_.wait_for_output("\n", PATIENCE, at)) return false;
  heard_ = process_.output().find('\n', at);
  return true;
}

bool ClientHand::has_said(const std::string& text) {
  return process_.wait_for_output(text, PATIENCE);
}

std::size_t ClientHand::count(const std::string& begin, const std::string& text) const {
  std::size_t count = 0;
  std::istringstream lines(process_.output());
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with(begin) && line.find(text) != std::string::npos) ++count;
  return count;
}

std::uint64_t ClientHand::done_us() {
  const std::string answer = "did ";
  if (!says(answer)) {
    ADD_FAILURE() << "the client took no command; it said:\n" << output();
    return 0;
  }
  return std::stoull(output().substr(output().rfind(answer, heard_) + answer.size()));
}

std::uint64_t ClientHand::act(const std::string& command) {
  tell(command);
  return done_us();
}

void ClientHand::kill() {
  process_.signal(SIGKILL);
}

std::optional<int> ClientHand::leave() {
  tell("leave");
  return process_.wait(PATIENCE);
}

// ---- The desk

std::string DeskTest::Monitor::at(int stream_x, int stream_y, int stream_width,
                                  int stream_height) const {
  return std::to_string(x + pixel(stream_x, stream_width, width)) + "," +
         std::to_string(y + pixel(stream_y, stream_height, height));
}

void DeskTest::TearDown() {
  if (HasFailure() && hand_) ADD_FAILURE() << "the client said:\n" << hand_->output();
  hand_.reset();
  SystemTest::TearDown();
}

void DeskTest::prepare(int width, int height) {
  start_desktop(width, height);
  serve();
}

// A program that is held up between a press and its release would see the key repeat.
void DeskTest::end_key_repeat() const {
  User(desktop_->display()).end_key_repeat();
}

void DeskTest::serve(const std::vector<std::string>& host_arguments) {
  end_key_repeat();
  std::vector<std::string> arguments = {"--codec", "h264"};
  arguments.insert(arguments.end(), host_arguments.begin(), host_arguments.end());
  start_host(arguments);
  pair();
}

void DeskTest::set_monitors(const std::vector<Monitor>& monitors) {
  for (const Monitor& monitor : monitors) {
    const std::string geometry = std::to_string(monitor.width) + "/100x" +
                                 std::to_string(monitor.height) + "/100+" +
                                 std::to_string(monitor.x) + "+" + std::to_string(monitor.y);
    const bool first = &monitor == &monitors.front();
    ASSERT_TRUE(
        desktop_->xrandr({"--setmonitor", monitor.name, geometry, first ? "screen" : "none"}));
  }
}

void DeskTest::connect(std::vector<std::string> arguments) {
  stream(0.1, std::move(arguments));
}

ClientHand& DeskTest::start_hand(int screens, int width) {
  const std::vector<std::string> arguments = {(directory_ / "client").string(), host_address(),
                                              std::to_string(screens), std::to_string(width)};
  hand_ = std::make_unique<ClientHand>(at(client_place_, "system_client_hand", arguments),
                                       environment_);
  for (int screen = 0; screen < screens; ++screen)
    EXPECT_TRUE(hand_->has_said("screen " + std::to_string(screen) + " streams"))
        << hand_->output();
  return *hand_;
}

}  // namespace system_test
