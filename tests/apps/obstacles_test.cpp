#include "apps/client/obstacles.h"

#include <gtest/gtest.h>

#include "connection/noise.h"

namespace {

lund_conn_event event(std::uint32_t type, std::int32_t status) {
  lund_conn_event made;
  made.type = type;
  made.status = status;
  return made;
}

std::string explained(std::initializer_list<std::int32_t> lookups) {
  Obstacles obstacles;
  for (const std::int32_t status : lookups)
    obstacles.note(event(LUND_EV_CLIENT_LOOKUP_FAILED, status), 1);
  return obstacles.why_unreached("nobody");
}

constexpr char UNKNOWN[] = "no server knows this host: is it switched on and registered?";
constexpr char LATER[] = "the server asks to try again later: somebody may be using the host";

TEST(Obstacles, WithoutNewsTheCallersTextStands) {
  EXPECT_EQ(explained({}), "nobody");
}

TEST(Obstacles, EachStatusOfALookUpHasItsText) {
  EXPECT_EQ(explained({1}), UNKNOWN);
  EXPECT_EQ(explained({0}), LATER);
  EXPECT_EQ(explained({4}), "server full");
}

TEST(Obstacles, TheServerThatComesClosestToTheHostExplains) {
  EXPECT_EQ(explained({1, 4}), "server full");
  EXPECT_EQ(explained({4, 1}), "server full");
  EXPECT_EQ(explained({0, 1, 4}), LATER);
  EXPECT_EQ(explained({1, 0}), LATER);
}

TEST(Obstacles, ARejectionCountsOnlyAfterItHasStoodForAWhile) {
  Obstacles obstacles;
  obstacles.note(event(LUND_EV_CLIENT_REJECTED, LUND_REJECT_BUSY), 1'000'000);
  EXPECT_FALSE(obstacles.rejected(2'499'999));
  EXPECT_EQ(obstacles.rejected(2'500'000), LUND_REJECT_BUSY);
  // Repeating it doesn't start the time over; what is said last holds.
  obstacles.note(event(LUND_EV_CLIENT_REJECTED, LUND_REJECT_UNKNOWN_DEVICE), 2'400'000);
  EXPECT_EQ(obstacles.rejected(2'500'000), LUND_REJECT_UNKNOWN_DEVICE);
  obstacles.clear();
  EXPECT_FALSE(obstacles.rejected(9'000'000));
  EXPECT_EQ(obstacles.why_unreached("nobody"), "nobody");
}

}  // namespace
