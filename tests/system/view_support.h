// What the tests of the window share: a host's desktop, and beside it a desktop of its own at which
// a person sits before `lunderhaze-client view`.
#pragma once

#include "tests/system/system_support.h"
#include "tests/system/user_support.h"

namespace system_test {

class ViewTest : public SystemTest {
 protected:
  static constexpr std::uint32_t GROUND = 0x406080;

  void TearDown() override;

  // A host with a desktop of this size in one colour, a paired device, and a person's desktop.
  void sit_down(int width = 1280, int height = 720,
                const std::vector<std::string>& host_arguments = {"--codec", "h264"});
  // Starts the viewer and waits for the picture, with the window at the person's top left corner.
  void view(const std::vector<std::string>& more = {});
  // The same without waiting for more than the window.
  void open_view(const std::vector<std::string>& more = {});
  std::optional<int> leave();  // by the release key; the viewer's exit status

  // Where the host's pixel stands on the person's desktop, at one to one.
  int seat_x(int x) const { return window_.x + x; }
  int seat_y(int y) const { return window_.y + y; }
  bool shows(std::uint32_t colour, int x, int y);  // in the window; waits for it
  nlohmann::json view_report() const;
  // Keeps what the person sees for the documentation, when LUND_SCREENSHOTS names a directory.
  void screenshot(const std::string& name);
  const Environment& seat_environment() const { return seat_environment_; }
  std::string host_name() const;
  int desktop_width() const { return painter_->width(); }
  int desktop_height() const { return painter_->height(); }

  std::unique_ptr<Xvfb> seat_;
  std::unique_ptr<User> user_;
  std::unique_ptr<ChildProcess> viewer_;
  Environment seat_environment_;
  SeenWindow window_;
};

// Each channel at most this far apart.
bool close_colours(std::uint32_t a, std::uint32_t b, int tolerance = 6);

}  // namespace system_test
