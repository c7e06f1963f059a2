// What a console's events ask of a program. The handler is called as the system does it: Wine sends
// no Ctrl+Break.
#include "apps/terminal/requests.h"

#include <gtest/gtest.h>

#include "apps/terminal/windows/control_event.h"

namespace {

class ConsoleRequests : public testing::Test {
 protected:
  void TearDown() override { SetConsoleCtrlHandler(answer_control_event, FALSE); }

  // That it has been answered, so that no other handler is asked.
  static bool happens(DWORD event) {
    ends_ = reports_ = 0;
    return answer_control_event(event) != FALSE;
  }

  static inline int ends_ = 0, reports_ = 0;
};

TEST_F(ConsoleRequests, CtrlBreakAsksForAReportAndCtrlCForTheEnd) {
  watch_requests({.end = [] { ++ends_; }, .report = [] { ++reports_; }});
  EXPECT_TRUE(happens(CTRL_BREAK_EVENT));
  EXPECT_EQ(reports_, 1);
  EXPECT_EQ(ends_, 0);
  EXPECT_TRUE(happens(CTRL_C_EVENT));
  EXPECT_EQ(reports_, 0);
  EXPECT_EQ(ends_, 1);
}

TEST_F(ConsoleRequests, CtrlBreakEndsAProgramThatHasNothingToReport) {
  watch_requests({.end = [] { ++ends_; }});
  EXPECT_TRUE(happens(CTRL_BREAK_EVENT));
  EXPECT_EQ(ends_, 1);
}

}  // namespace
