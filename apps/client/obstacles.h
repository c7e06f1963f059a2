// Why a host isn't reached: what servers and the host itself have said, kept until it is known that
// nothing else worked. Rejections and look-ups prove nothing while another path may still succeed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "connection/conn.h"

// Values of a failed look-up's status; any other means that the server doesn't know the host.
enum LookupStatus : std::int32_t {
  LOOKUP_TRY_LATER = 0,
  LOOKUP_SERVER_FULL = 4,
};

class Obstacles {
 public:
  void note(const lund_conn_event& event, std::uint64_t now_us);
  void clear() { *this = {}; }

  // The host's refusal, once it has stood for so long that a handshake on another path would have
  // succeeded. Anyone can forge one.
  std::optional<std::uint32_t> rejected(std::uint64_t now_us) const;
  // The best explanation that was given; `otherwise` when none was.
  std::string why_unreached(const std::string& otherwise) const;

 private:
  enum class News { None, Unknown, Full, TryLater };  // the later, the closer to the host
  News news_ = News::None;
  std::uint32_t rejection_ = 0;
  std::uint64_t rejected_us_ = 0;
};
