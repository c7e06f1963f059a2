// Of the window alone, with SDL itself and a server of X: which errors of the latter end a program.
#include "apps/client/view/late_wakeups.h"

#include <SDL.h>
#include <SDL_syswm.h>
#include <X11/Xlib.h>
#include <X11/Xproto.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "apps/client/view/sdl_handles.h"
#include "tests/support/xvfb.h"

namespace {

// As SDL has it: one connection for the window, another for what wakes it.
class LateWakeups : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    XSetErrorHandler([](Display*, XErrorEvent* error) {
      others().push_back(error->request_code);
      return 0;
    });
    allow_late_wakeups();
  }
  static std::vector<int>& others() {
    static std::vector<int> requests;  // whose errors Xlib's own handler would have ended us for
    return requests;
  }

  void SetUp() override {
    ASSERT_TRUE(server_.running());
    others().clear();
    ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO), 0) << SDL_GetError();
    ASSERT_STREQ(SDL_GetCurrentVideoDriver(), "x11");
    SdlPtr<SDL_Window> window(SDL_CreateWindow("wake-up", 0, 0, 320, 240, 0));
    ASSERT_TRUE(window) << SDL_GetError();
    SDL_SysWMinfo info;
    SDL_VERSION(&info.version);
    ASSERT_EQ(SDL_GetWindowWMInfo(window.get(), &info), SDL_TRUE);
    gone_ = info.info.x11.window;
    Display* first = info.info.x11.display;
    window.reset();
    XSync(first, False);
    second_.reset(XOpenDisplay(nullptr));
    ASSERT_TRUE(second_);
  }
  void TearDown() override {
    second_.reset();
    SDL_Quit();
  }

  struct Close {
    void operator()(Display* display) const { XCloseDisplay(display); }
  };
  Xvfb server_{640, 480};
  Window gone_ = 0;
  std::unique_ptr<Display, Close> second_;
};

TEST_F(LateWakeups, OneForAWindowThatIsGoneIsNotTheEnd) {
  XEvent event{};
  event.xclient.type = ClientMessage;
  event.xclient.format = 8;
  XSendEvent(second_.get(), gone_, False, NoEventMask, &event);
  XSync(second_.get(), False);
  EXPECT_THAT(others(), testing::IsEmpty());
}

TEST_F(LateWakeups, OtherErrorsStayWhatTheyAre) {
  XMapWindow(second_.get(), gone_);
  XSync(second_.get(), False);
  EXPECT_THAT(others(), testing::ElementsAre(X_MapWindow));
}

}  // namespace
