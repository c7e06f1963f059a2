// The clipboard's key at the window. What travels while it is shared: clipboard_view_test.
#include "tests/support/linux/xclip.h"
#include "tests/system/view_support.h"

namespace system_test {
namespace {

TEST_F(ViewTest, SwitchedOffAtTheWindowNothingTravels) {
  sit_down();
  view();
  Xclip here(seat_->display());
  Xclip there(desktop_->display());
  there.copy("shared");
  ASSERT_TRUE(here.changed());
  user_->command('c');
  ASSERT_TRUE(viewer_->wait_for_output("clipboard sync off", seconds(10)));
  here.copy("a secret");
  // The host knows nothing of the switch: it sends, and is told that it has arrived.
  there.copy("the host's own");
  ASSERT_TRUE(viewer_->wait_for_output("not applied (sync is off)", seconds(10)));
  EXPECT_EQ(here.paste(), "a secret");
  EXPECT_EQ(there.paste(), "the host's own");
  user_->command('c');
  ASSERT_TRUE(viewer_->wait_for_output("clipboard sync on", seconds(10)));
  here.copy("shared again");
  EXPECT_TRUE(there.changed());
  EXPECT_EQ(there.paste(), "shared again");
}

}  // namespace
}  // namespace system_test
