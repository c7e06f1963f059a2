// What the doctor reads of Linux.
#include "apps/lunderhaze/linux/doctor_platform.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(DoctorSession, AWaylandSessionIsNamed) {
  EXPECT_EQ(display_advice_for({"", "wayland-0", "wayland"}),
            "the session is wayland-0 of a Wayland compositor: choose an X11 (Xorg) session when "
            "logging in");
  EXPECT_EQ(display_advice_for({":0", "", "wayland"}),
            "the session is a Wayland one of a Wayland compositor: choose an X11 (Xorg) session "
            "when logging in");
}

TEST(DoctorSession, WithoutADisplayOneIsToBeNamed) {
  EXPECT_EQ(display_advice_for({"", "", "tty"}),
            "run this in the desktop's own session, or name it: DISPLAY=:0 lunderhaze doctor");
}

TEST(DoctorSession, ADisplayThatCannotBeReachedIsToBeLookedAt) {
  EXPECT_EQ(display_advice_for({":0", "", "x11"}),
            "see that this X server runs and lets this user in (XAUTHORITY)");
}

constexpr const char* TABLE =
    "   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode ref pointer drops            \n"
    "  356: 0100007F:2694 00000000:0000 07 00000000:00000000 00:00000000 00000000  1000        0 "
    "55001 2 0000000000000000 0        \n"
    "  357: 00000000:2695 00000000:0000 07 00000000:00000000 00:00000000 00000000     0        0 "
    "55002 2 0000000000000000 0        \n"
    "  358: 00000000:2694 00000000:0000 07 00000000:00000000 00:00000000 00000000     7        0 "
    "55003 2 0000000000000000 0        \n";

TEST(DoctorPortHolder, FindsTheSocketsOfAPortInTheKernelsTable) {
  EXPECT_THAT(sockets_on_port(TABLE, 0x2694),
              ElementsAre(BoundSocket{55001, 1000}, BoundSocket{55003, 7}));
  EXPECT_THAT(sockets_on_port(TABLE, 0x2695), ElementsAre(BoundSocket{55002, 0}));
  EXPECT_THAT(sockets_on_port(TABLE, 0x94), IsEmpty());
}

TEST(DoctorPortHolder, ReadsTheTableOfIPv6) {
  EXPECT_THAT(sockets_on_port("  1: 00000000000000000000000000000000:2694 "
                              "00000000000000000000000000000000:0000 07 00000000:00000000 "
                              "00:00000000 00000000  1000        0 77 2 0000000000000000 0\n",
                              0x2694),
              ElementsAre(BoundSocket{77, 1000}));
}

TEST(DoctorPortHolder, LinesOfAnotherFormArePassedOver) {
  for (const char* line :
       {"", "\n", "1: 2694\n", "1: :2694 b c d e f\n", "1: 00000000:26946 b 07 q t r 0 0 5\n",
        "1: 00000000: b 07 q t r 0 0 5\n", "1: x b 07 q t r 0 0 5\n",
        "1: 00000000:2694 b 07 q t r x 0 5\n"})
    EXPECT_THAT(sockets_on_port(line, 0x2694), IsEmpty()) << line;
}

}  // namespace
