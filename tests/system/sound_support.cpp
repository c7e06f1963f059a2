#include "tests/system/sound_support.h"

#include <signal.h>

#include <chrono>
#include <ctime>
#include <sstream>

#include "connection/clock.h"

namespace system_test {

using std::chrono::milliseconds;

namespace {

// "[2026-11-21 16:05:51.951] text", local time.
std::optional<LogLine> parse_log_line(const std::string& line, std::uint64_t clock_start_us) {
  std::tm local{};
  local.tm_isdst = -1;
  const char* rest = strptime(line.c_str(), "[%Y-%m-%d %H:%M:%S.", &local);
  if (!rest || line.size() < 26) return std::nullopt;
  const auto wall_us = static_cast<std::uint64_t>(std::mktime(&local)) * 1'000'000 +
                       std::stoull(std::string(rest, 3)) * 1'000;
  return LogLine{wall_us - clock_start_us, line.substr(26)};
}

}  // namespace

void RecordingTest::SetUp() {
  SystemTest::SetUp();
  recording_ = WavFile(recording_path());
}

void RecordingTest::start(const std::map<std::string, std::string>& sound,
                          const std::vector<std::string>& host_arguments) {
  for (const auto& [name, value] : sound) environment_[name] = value;
  start_desktop(320, 240);
  std::vector<std::string> arguments = {"--codec", "h264"};
  arguments.insert(arguments.end(), host_arguments.begin(), host_arguments.end());
  start_host(arguments);
  pair();
}

ChildProcess& RecordingTest::start_recording(const std::vector<std::string>& more) {
  std::vector<std::string> arguments = {"--out", out().string(), "--audio-out",
                                        recording_path().string()};
  arguments.insert(arguments.end(), more.begin(), more.end());
  recording_ = WavFile(recording_path());
  launch_receiver(arguments);
  EXPECT_TRUE(receiver_->wait_for_output("path: ", seconds(20))) << receiver_->output();
  return *receiver_;
}

bool RecordingTest::hears(double hz, milliseconds length) {
  constexpr double AUDIBLE = 0.1;  // -20 dB
  const auto frames = static_cast<std::size_t>(WavFile::RATE / 1'000 * length.count());
  return comes_true([&] {
    recording_.read_on();
    return recording_.left.size() >= frames &&
           tone_amplitude(std::span(recording_.left).last(frames), WavFile::RATE, hz) > AUDIBLE;
  });
}

bool RecordingTest::records(double wanted_seconds) {
  return comes_true([&] {
    recording_.read_on();
    return recording_.seconds() >= wanted_seconds;
  });
}

void RecordingTest::end_recording() {
  EXPECT_TRUE(records(0.01));  // a client that has heard nothing complains
  receiver_->signal(SIGINT);
  EXPECT_EQ(receiver_->wait(seconds(20)), 0) << receiver_->output();
  recording_ = WavFile(recording_path());  // what came after the end has been cut off
  recording_.read_on();
  recording_.check_header();
}

std::vector<LogLine> RecordingTest::log_lines() const {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  const std::uint64_t clock_start_us =
      static_cast<std::uint64_t>(
          std::chrono::duration_cast<std::chrono::microseconds>(since_epoch).count()) -
      lund_now_us();
  std::vector<LogLine> lines;
  std::istringstream text(host_log());
  for (std::string line; std::getline(text, line);)
    if (auto parsed = parse_log_line(line, clock_start_us)) lines.push_back(std::move(*parsed));
  return lines;
}

std::optional<LogLine> RecordingTest::logged(const std::string& part) const {
  std::optional<LogLine> newest;
  for (LogLine& line : log_lines())
    if (line.text.find(part) != std::string::npos) newest = std::move(line);
  return newest;
}

std::string RecordingTest::tell_host(const std::vector<std::string>& arguments) const {
  const RunResult result = run_program(at({}, "lunderhaze", arguments), environment_);
  EXPECT_EQ(result.status, 0) << result.output;
  return result.output;
}

}  // namespace system_test
