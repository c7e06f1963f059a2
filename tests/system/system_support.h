// What the system tests share: a virtual desktop, a host on it, a client towards it, and pictures.
// Everything runs in a directory of the test's own, with the user's stores redirected there.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "apps/client/picture.h"
#include "tests/support/child_process.h"
#include "tests/support/free_port.h"
#include "tests/support/xvfb.h"

namespace system_test {

using std::chrono::seconds;
using Environment = std::map<std::string, std::string>;

// A PNG file as RGB; fails the test when it can't be read.
RgbPicture read_png(const std::filesystem::path& path);

// Peak signal-to-noise ratio of the BT.709 luma, decibels. Equal sizes are required.
double luma_psnr(const RgbPicture& a, const RgbPicture& b);

// By the distribution's own decoder, which knows nothing of this project; it says what it dislikes.
RunResult decode_with_ffmpeg(const std::filesystem::path& recording);

class SystemTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A desktop of this size; DISPLAY of every program started afterwards.
  void start_desktop(int width, int height);

  // A host that listens; fails the test when it doesn't. `arguments` go behind --port.
  void start_host(const std::vector<std::string>& arguments = {"--codec", "h264"},
                  ChildProcess::Streams streams = ChildProcess::Streams::Piped);
  void start_host_on_a_terminal() {
    start_host({"--codec", "h264"}, ChildProcess::Streams::Terminal);
  }
  std::optional<int> stop_host();  // as Ctrl+C does; its exit status

  std::string shown_pin() const;  // the newest that the host has printed
  RunResult client(std::vector<std::string> arguments, seconds deadline = seconds(60));
  void pair();
  // Connects for so long; the result must be success.
  void stream(double stream_seconds, std::vector<std::string> more = {});

  // A client that streams until it is stopped, and tells what it does.
  ChildProcess& launch_receiver(const std::vector<std::string>& more = {});
  // The same, once it has reported its first second.
  ChildProcess& start_receiver(const std::vector<std::string>& more = {});

  // What the client calls the host by.
  virtual std::string host_address() const { return "127.0.0.1:" + std::to_string(port_); }
  nlohmann::json report() const;
  RgbPicture last_frame() const { return read_png(out() / "last_frame.png"); }
  std::filesystem::path out() const { return directory_ / "out"; }
  std::filesystem::path recording() const { return out() / "stream.h264"; }
  virtual std::string host_log() const;
  const Environment& environment() const { return environment_; }

  // What stands on the desktop.
  RgbPicture screen(int x, int y, int width, int height);

  static std::string program(const std::string& name) {
    return std::string(LUND_BIN_DIR) + "/" + name;
  }

  // Where a program runs: what its command line begins with. Nothing: beside the test.
  using Place = std::vector<std::string>;
  static std::vector<std::string> at(const Place& place, const std::string& name,
                                     const std::vector<std::string>& arguments);

  std::filesystem::path directory_;
  Environment environment_;
  Place host_place_;
  Place client_place_;
  std::unique_ptr<Xvfb> desktop_;
  std::unique_ptr<RootPainter> painter_;
  std::unique_ptr<ChildProcess> host_;
  std::unique_ptr<ChildProcess> receiver_;
  int port_ = 0;
};

}  // namespace system_test
