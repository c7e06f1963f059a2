#include "apps/client/obstacles.h"

#include <algorithm>

namespace {
constexpr std::uint64_t REJECTION_STANDS_US = 1'500'000;  // six handshakes
}

void Obstacles::note(const lund_conn_event& event, std::uint64_t now_us) {
  if (event.type == LUND_EV_CLIENT_REJECTED) {
    if (rejected_us_ == 0) rejected_us_ = now_us;
    rejection_ = static_cast<std::uint32_t>(event.status);
  } else if (event.type == LUND_EV_CLIENT_LOOKUP_FAILED) {
    const News news = event.status == LOOKUP_TRY_LATER     ? News::TryLater
                      : event.status == LOOKUP_SERVER_FULL ? News::Full
                                                           : News::Unknown;
    news_ = std::max(news_, news);
  }
}

std::optional<std::uint32_t> Obstacles::rejected(std::uint64_t now_us) const {
  if (rejected_us_ == 0 || now_us - rejected_us_ < REJECTION_STANDS_US) return std::nullopt;
  return rejection_;
}

std::string Obstacles::why_unreached(const std::string& otherwise) const {
  switch (news_) {
    case News::TryLater:
      return "the server asks to try again later: somebody may be using the host";
    case News::Full:
      return "server full";
    case News::Unknown:
      return "no server knows this host: is it switched on and registered?";
    case News::None:
      break;
  }
  return otherwise;
}
