#include "tests/support/virtual_time.h"

#include <atomic>

#include "connection/clock.h"

namespace {
std::atomic<std::uint64_t> now_us{virtual_time::START_US};
std::atomic<std::uint64_t> wall_us{virtual_time::START_WALL_US};
}  // namespace

namespace virtual_time {

void reset() {
  now_us = START_US;
  wall_us = START_WALL_US;
}

void advance_us(std::uint64_t us) {
  now_us += us;
  wall_us += us;
}

void set_wall_us(std::uint64_t us) {
  wall_us = us;
}

}  // namespace virtual_time

std::uint64_t lund_now_us() {
  return now_us;
}
std::uint64_t lund_now_ns() {
  return now_us * 1000;
}
std::uint64_t lund_wall_us() {
  return wall_us;
}
