#include "tests/system/system_support.h"

#include <png.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <regex>

#include "tests/support/temp_directory.h"

namespace system_test {

RgbPicture read_png(const std::filesystem::path& path) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  RgbPicture picture;
  if (!png_image_begin_read_from_file(&image, path.c_str())) {
    ADD_FAILURE() << "cannot read " << path << ": " << image.message;
    return picture;
  }
  image.format = PNG_FORMAT_RGB;
  picture.width = static_cast<int>(image.width);
  picture.height = static_cast<int>(image.height);
  picture.pixels.resize(PNG_IMAGE_SIZE(image));
  EXPECT_TRUE(png_image_finish_read(&image, nullptr, picture.pixels.data(), 0, nullptr));
  return picture;
}

double luma_psnr(const RgbPicture& a, const RgbPicture& b) {
  EXPECT_EQ(a.width, b.width);
  EXPECT_EQ(a.height, b.height);
  if (a.pixels.size() != b.pixels.size() || a.pixels.empty()) return 0;
  auto luma = [](const std::uint8_t* rgb) {
    return 0.2126 * rgb[0] + 0.7152 * rgb[1] + 0.0722 * rgb[2];
  };
  double sum = 0;
  for (std::size_t i = 0; i < a.pixels.size(); i += 3) {
    const double difference = luma(&a.pixels[i]) - luma(&b.pixels[i]);
    sum += difference * difference;
  }
  const double mean = sum / (static_cast<double>(a.pixels.size()) / 3);
  return mean == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 / mean);
}

RunResult decode_with_ffmpeg(const std::filesystem::path& recording) {
  return run_program(
      {"ffmpeg", "-v", "warning", "-xerror", "-i", recording.string(), "-f", "null", "-"});
}

void SystemTest::SetUp() {
  std::string name = (std::filesystem::temp_directory_path() / "lunderhaze-system-XXXXXX").string();
  ASSERT_NE(mkdtemp(name.data()), nullptr);
  directory_ = name;
  port_ = free_port();
  environment_ = {{"XDG_CONFIG_HOME", (directory_ / "config").string()},
                  {"XDG_STATE_HOME", (directory_ / "state").string()},
                  {"WAYLAND_DISPLAY", ""},
                  {"XDG_SESSION_TYPE", ""},
                  // No host of a test's mutes the speakers of whoever runs it.
                  {"PULSE_SERVER", "unix:" + (directory_ / "no-sound").string()},
                  {"DISPLAY", ""}};
}

void SystemTest::TearDown() {
  if (HasFailure()) {
    if (host_) ADD_FAILURE() << "the host said:\n" << host_->output();
    ADD_FAILURE() << "its log:\n" << host_log();
  }
  receiver_.reset();
  host_.reset();
  painter_.reset();
  desktop_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

void SystemTest::start_desktop(int width, int height) {
  desktop_ = std::make_unique<Xvfb>(width, height);
  environment_["DISPLAY"] = desktop_->display();
  painter_ = std::make_unique<RootPainter>(desktop_->display());
}

std::vector<std::string> SystemTest::at(const Place& place, const std::string& name,
                                        const std::vector<std::string>& arguments) {
  std::vector<std::string> all = place;
  all.push_back(program(name));
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

void SystemTest::start_host(const std::vector<std::string>& arguments,
                            ChildProcess::Streams streams) {
  std::vector<std::string> all = {"--port", std::to_string(port_)};
  all.insert(all.end(), arguments.begin(), arguments.end());
  host_ = std::make_unique<ChildProcess>(at(host_place_, "lunderhaze", all), environment_, streams);
  ASSERT_TRUE(host_->wait_for_output("Listening on UDP port", seconds(20))) << host_->output();
}

std::optional<int> SystemTest::stop_host() {
  host_->signal(SIGINT);
  return host_->wait(seconds(20));
}

std::string SystemTest::shown_pin() const {
  host_->wait_for_output("PIN ", seconds(10));
  const std::string& output = host_->output();
  const std::size_t at = output.rfind("PIN ");
  return at == std::string::npos ? "" : output.substr(at + 4, 6);
}

RunResult SystemTest::client(std::vector<std::string> arguments, seconds deadline) {
  arguments.insert(arguments.begin(), {"--store", (directory_ / "client").string()});
  return run_program(at(client_place_, "lunderhaze-client", arguments), environment_, deadline);
}

void SystemTest::pair() {
  const RunResult result = client({"pair", "--host", host_address(), "--pin", shown_pin()});
  ASSERT_EQ(result.status, 0) << result.output;
}

void SystemTest::stream(double stream_seconds, std::vector<std::string> more) {
  std::vector<std::string> arguments = {
      "connect", "--host",      host_address(), "--seconds", std::to_string(stream_seconds),
      "--out",   out().string()};
  arguments.insert(arguments.end(), more.begin(), more.end());
  const RunResult result =
      client(arguments, seconds(60) + seconds(static_cast<int>(stream_seconds)));
  ASSERT_EQ(result.status, 0) << result.output;
}

ChildProcess& SystemTest::launch_receiver(const std::vector<std::string>& more) {
  std::vector<std::string> arguments = {"--store",   (directory_ / "client").string(),
                                        "--verbose", "connect",
                                        "--host",    host_address(),
                                        "--seconds", "0"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  receiver_ = std::make_unique<ChildProcess>(at(client_place_, "lunderhaze-client", arguments),
                                             environment_);
  return *receiver_;
}

ChildProcess& SystemTest::start_receiver(const std::vector<std::string>& more) {
  launch_receiver(more);
  EXPECT_TRUE(receiver_->wait_for_output("fps", seconds(20))) << receiver_->output();
  return *receiver_;
}

RgbPicture SystemTest::screen(int x, int y, int width, int height) {
  return {width, height, painter_->rgb(x, y, width, height)};
}

nlohmann::json SystemTest::report() const {
  std::ifstream file(out() / "report.json");
  return nlohmann::json::parse(file);
}

std::string SystemTest::host_log() const {
  return file_content(directory_ / "state" / "lunderhaze" / "host.log");
}

}  // namespace system_test
