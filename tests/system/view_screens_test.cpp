// Several screens of one host, each in a window of its own.
#include "tests/system/view_support.h"

namespace system_test {
namespace {

class ViewScreensTest : public ViewTest {
 protected:
  void sit_at_two_monitors() {
    start_desktop(1280, 400);
    for (const auto& [name, geometry, output] :
         {std::tuple{"LEFT", "640/170x400/106+0+0", "screen"},
          {"RIGHT", "640/170x400/106+640+0", "none"}})
      ASSERT_TRUE(desktop_->xrandr({"--setmonitor", name, geometry, output}));
    painter_->fill(0x905020, 0, 0, 640, 400);
    painter_->fill(0x209050, 640, 0, 640, 400);
    start_host();
    pair();
    seat_ = std::make_unique<Xvfb>(1600, 1000);
    user_ = std::make_unique<User>(seat_->display());
    seat_environment_ = environment_;
    seat_environment_["DISPLAY"] = seat_->display();
  }
  std::string title(int screen) const {
    return host_name() + " - screen " + std::to_string(screen);
  }
};

TEST_F(ViewScreensTest, TwoScreensAreTwoWindowsWhoseClicksReachTheirOwn) {
  sit_at_two_monitors();
  Recorder recorder(desktop_->display(), 600, 300, 100, 100);
  open_view({"--screens", "2"});
  SeenWindow left, right;
  ASSERT_TRUE(comes_true([&] {
    return user_->find_window(title(0), &left) && user_->find_window(title(1), &right) &&
           left.width == 640 && right.width == 640;
  }));
  user_->place(left, 0, 0, 640, 400);
  user_->place(right, 700, 450, 640, 400);
  window_ = {};
  EXPECT_TRUE(shows(0x905020, 300, 200));
  EXPECT_TRUE(shows(0x209050, 700 + 300, 450 + 200));
  user_->move(639, 350);
  user_->click();
  EXPECT_TRUE(recorder.records("button 1 down 639,350"));
  user_->move(700, 450 + 351);
  user_->click();
  EXPECT_TRUE(recorder.records("button 1 down 640,351"));
  painter_->fill(0x2050C0, 640, 0, 640, 300);
  EXPECT_TRUE(shows(0x2050C0, 700 + 300, 450 + 100));
  user_->ask_to_close(right);
  EXPECT_TRUE(comes_true([&] { return user_->windows().size() == 1; }));
  painter_->fill(0xC0A030, 0, 0, 600, 300);
  EXPECT_TRUE(shows(0xC0A030, 300, 100)) << "the first goes on";
  user_->focus(left.id);
  EXPECT_EQ(leave(), 0);
  EXPECT_EQ(view_report()["screens"].size(), 2U);
}

TEST_F(ViewScreensTest, AScreenThatTheHostHasNotSaysSoInItsWindow) {
  sit_at_two_monitors();
  open_view({"--screens", "3"});
  SeenWindow first, third;
  ASSERT_TRUE(user_->find_window(title(0), &first));
  ASSERT_TRUE(user_->find_window(title(2), &third));
  ASSERT_TRUE(
      comes_true([&] { return user_->find_window(title(0), &first) && first.width == 640; }));
  user_->place(first, 0, 0, 640, 400);
  user_->place(third, 700, 450, 640, 400);
  window_ = {};
  EXPECT_TRUE(shows(0x905020, 300, 200)) << "the others stream all the same";
  EXPECT_TRUE(viewer_->wait_for_output("screen 2: the host refused: no such screen, or no display",
                                       seconds(20)))
      << viewer_->output();
}

}  // namespace
}  // namespace system_test
