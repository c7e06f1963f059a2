#include "apps/client/path_history.h"

#include <cmath>
#include <cstdio>

#include "control/text.h"

std::string PathHistory::begin(const lund_conn_event& event, double at_s,
                               const FrameCounts& so_far) {
  if (event.path == LUND_PATH_NONE) return {};
  periods_.push_back({at_s, event.path, event.addr, event.rtt_us, so_far});
  char line[128];
  std::snprintf(line, sizeof line, "path: %s (rtt %.1f ms)", where().c_str(),
                event.rtt_us / 1000.0);
  return line;
}

std::string PathHistory::address() const {
  return addr_string(empty() ? lund_rv_endpoint{} : periods_.back().address);
}

std::string PathHistory::where() const {
  return std::string(lund_path_name(path_class())) + " " + address();
}

std::optional<lund_rv_endpoint> PathHistory::last_of(std::int32_t lowest,
                                                     std::int32_t highest) const {
  for (auto period = periods_.rbegin(); period != periods_.rend(); ++period)
    if (period->path_class >= lowest && period->path_class <= highest) return period->address;
  return std::nullopt;
}

std::optional<lund_rv_endpoint> PathHistory::last_lan() const {
  return last_of(LUND_PATH_LAN, LUND_PATH_LAN);
}
std::optional<lund_rv_endpoint> PathHistory::last_outside() const {
  return last_of(LUND_PATH_DIRECT, LUND_PATH_P2P);
}

nlohmann::json PathHistory::report(const FrameCounts& so_far) const {
  nlohmann::json json = nlohmann::json::array();
  for (std::size_t i = 0; i < periods_.size(); ++i) {
    const Period& period = periods_[i];
    const FrameCounts& end = i + 1 < periods_.size() ? periods_[i + 1].before : so_far;
    json.push_back({{"at_s", std::round(period.at_s * 1000) / 1000},
                    {"class", lund_path_name(period.path_class)},
                    {"address", addr_string(period.address)},
                    {"rtt_ms", period.rtt_us / 1000.0},
                    {"frames", end.decoded - period.before.decoded},
                    {"frames_lost", end.lost - period.before.lost}});
  }
  return json;
}
