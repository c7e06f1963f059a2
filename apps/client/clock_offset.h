// How a host's clock stands to this computer's, by the answers to pings. The quickest answer tells
// it most exactly. On one computer both are the same clock, unless the answers show otherwise: one
// of the two may run in a system of its own there. Pure.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

class ClockOffset {
 public:
  ClockOffset() = default;
  explicit ClockOffset(bool one_computer) : one_computer_(one_computer) {
    if (one_computer) offset_us_ = 0;
  }

  // An answer: asked at `sent_us` here, answered at `host_us` there, back after `rtt_us`.
  void measured(std::uint64_t sent_us, std::uint64_t host_us, std::uint64_t rtt_us) {
    if (best_rtt_us_ != 0 && rtt_us >= best_rtt_us_) return;
    best_rtt_us_ = std::max<std::uint64_t>(rtt_us, 1);
    const auto seen =
        static_cast<std::int64_t>(host_us) - static_cast<std::int64_t>(sent_us + rtt_us / 2);
    // It was answered at some time between: so far off the middle one clock may seem, no further.
    const auto slack = static_cast<std::int64_t>(rtt_us / 2 + 1);
    offset_us_ = one_computer_ && seen >= -slack && seen <= slack ? 0 : seen;
  }

  // The host's less this computer's, microseconds; nothing before it is known.
  std::optional<std::int64_t> us() const { return offset_us_; }

 private:
  bool one_computer_ = false;
  std::uint64_t best_rtt_us_ = 0;
  std::optional<std::int64_t> offset_us_;
};
