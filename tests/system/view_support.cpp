#include "tests/system/view_support.h"

#include <cstdlib>
#include <fstream>

#include "control/sysinfo.h"

namespace system_test {

namespace {

constexpr int SEAT_WIDTH = 1600;
constexpr int SEAT_HEIGHT = 1000;

}  // namespace

bool close_colours(std::uint32_t a, std::uint32_t b, int tolerance) {
  for (const int shift : {0, 8, 16})
    if (std::abs(static_cast<int>(a >> shift & 0xFF) - static_cast<int>(b >> shift & 0xFF)) >
        tolerance)
      return false;
  return true;
}

std::string ViewTest::host_name() const {
  return computer_name_utf8();
}

void ViewTest::sit_down(int width, int height, const std::vector<std::string>& host_arguments) {
  start_desktop(width, height);
  painter_->fill(GROUND, 0, 0, width, height);
  start_host(host_arguments);
  pair();
  seat_ = std::make_unique<Xvfb>(SEAT_WIDTH, SEAT_HEIGHT);
  user_ = std::make_unique<User>(seat_->display());
  seat_environment_ = environment_;
  seat_environment_["DISPLAY"] = seat_->display();
}

void ViewTest::TearDown() {
  if (HasFailure() && viewer_) ADD_FAILURE() << "the viewer said:\n" << viewer_->output();
  viewer_.reset();
  user_.reset();
  seat_.reset();
  SystemTest::TearDown();
}

void ViewTest::open_view(const std::vector<std::string>& more) {
  std::vector<std::string> arguments = {
      "--store",  (directory_ / "client").string(),   "--verbose", "view", "--host", host_address(),
      "--report", (directory_ / "view.json").string()};
  arguments.insert(arguments.end(), more.begin(), more.end());
  viewer_ = std::make_unique<ChildProcess>(at(client_place_, "lunderhaze-client", arguments),
                                           seat_environment_);
}

void ViewTest::view(const std::vector<std::string>& more) {
  open_view(more);
  ASSERT_TRUE(viewer_->wait_for_output("path:", seconds(20))) << viewer_->output();
  ASSERT_TRUE(user_->find_window(host_name(), &window_));
  // The window takes the picture's size once that is known; then it is put into the corner.
  ASSERT_TRUE(comes_true([&] {
    user_->find_window(host_name(), &window_);
    return window_.width == desktop_width() && window_.height == desktop_height();
  })) << "the window has "
      << window_.width << "x" << window_.height;
  user_->place(window_, 0, 0, window_.width, window_.height);
  window_.x = window_.y = 0;
  // The picture fills it: where there was black or a text, there is now the host's screen.
  const RgbPicture there = screen(desktop_width() - 5, 5, 1, 1);
  ASSERT_TRUE(shows(
      static_cast<std::uint32_t>(there.pixels[0] << 16 | there.pixels[1] << 8 | there.pixels[2]),
      desktop_width() - 5, 5));
}

std::optional<int> ViewTest::leave() {
  user_->command('q');
  return viewer_->wait(seconds(20));
}

bool ViewTest::shows(std::uint32_t colour, int x, int y) {
  return comes_true([&] { return close_colours(user_->colour(seat_x(x), seat_y(y)), colour); });
}

nlohmann::json ViewTest::view_report() const {
  std::ifstream file(directory_ / "view.json");
  return nlohmann::json::parse(file);
}

void ViewTest::screenshot(const std::string& name) {
  const char* directory = std::getenv("LUND_SCREENSHOTS");
  if (!directory) return;
  SeenWindow window = window_;
  user_->find_window(window.title, &window);
  EXPECT_TRUE(write_png(std::filesystem::path(directory) / ("client-" + name + ".png"),
                        user_->content(window)));
}

}  // namespace system_test
