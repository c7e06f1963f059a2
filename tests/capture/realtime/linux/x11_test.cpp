#include "capture/linux/x11.h"

#include <gtest/gtest.h>
#include <xcb/xfixes.h>

#include "tests/support/xvfb.h"

namespace {

// A server may die between any two questions: each later one is answered by nothing, and none by
// a crash.
TEST(X11Connection, OutlivesItsServer) {
  Xvfb server(64, 64);
  const x11::Connection connection;
  const xcb_screen_t* screen = connection.screen();
  ASSERT_NE(screen, nullptr);
  EXPECT_EQ(screen->width_in_pixels, 64);
  EXPECT_TRUE(connection.first_event(&xcb_xfixes_id));
  EXPECT_FALSE(x11::monitors(connection).empty());
  server.kill();
  EXPECT_TRUE(x11::monitors(connection).empty());
  EXPECT_FALSE(connection.ok());
  EXPECT_EQ(connection.screen(), screen);
  EXPECT_EQ(screen->width_in_pixels, 64);
  EXPECT_FALSE(connection.first_event(&xcb_xfixes_id));
  EXPECT_FALSE(connection.has_extension("XFIXES"));
  EXPECT_FALSE(x11::is_xwayland(connection));
}

TEST(X11Connection, WithoutAServerThereIsNoScreen) {
  Xvfb server(64, 64);
  server.kill();
  const x11::Connection connection;
  EXPECT_FALSE(connection.ok());
  EXPECT_EQ(connection.screen(), nullptr);
  EXPECT_FALSE(connection.first_event(&xcb_xfixes_id));
  EXPECT_TRUE(x11::monitors(connection).empty());
}

}  // namespace
