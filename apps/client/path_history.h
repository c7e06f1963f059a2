// The paths that a stream has taken: when each began, where it led, and what came and was lost on
// it. One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "connection/conn.h"

struct FrameCounts {
  std::uint32_t decoded = 0;
  std::uint32_t lost = 0;  // counted when the loss is noticed, which is after the next frame
};

class PathHistory {
 public:
  // `at_s` seconds after the start; `so_far` counts all frames up to now. An event of a path that
  // isn't known yet (class 0) leaves the history alone and gives an empty line.
  std::string begin(const lund_conn_event& event, double at_s, const FrameCounts& so_far);

  bool empty() const { return periods_.empty(); }
  std::int32_t path_class() const { return empty() ? 0 : periods_.back().path_class; }
  std::string address() const;  // the last path's, "-" without one
  std::string where() const;    // the last path's class and address: "LAN 192.168.1.5:9876"
  // Where the host was last reached on a path of these classes.
  std::optional<lund_rv_endpoint> last_lan() const;
  std::optional<lund_rv_endpoint> last_outside() const;  // direct or by hole punching

  nlohmann::json report(const FrameCounts& so_far) const;

 private:
  struct Period {
    double at_s;
    std::int32_t path_class;
    lund_rv_endpoint address;
    std::uint32_t rtt_us;
    FrameCounts before;  // at its beginning
  };
  std::optional<lund_rv_endpoint> last_of(std::int32_t lowest, std::int32_t highest) const;

  std::vector<Period> periods_;
};
