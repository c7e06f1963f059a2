#include <cinttypes>
#include <cstdio>

#include "apps/rendezvous/server.h"

std::string statistics_text(const RendezvousStatistics& s) {
  char text[1024];
  std::snprintf(text, sizeof text,
                "statistics: now: %" PRIu64 " hosts, %" PRIu64
                " allocations\n"
                "statistics: registrations: %" PRIu64 " new, %" PRIu64 " refreshed, %" PRIu64
                " challenges\n"
                "statistics: look-ups: %" PRIu64 ", %" PRIu64 " found, %" PRIu64
                " hosts notified, %" PRIu64
                " binds\n"
                "statistics: relayed: %" PRIu64 " datagrams, %" PRIu64
                " bytes\n"
                "statistics: refused: wrong proof %" PRIu64 ", full %" PRIu64 ", busy %" PRIu64
                ", too many requests %" PRIu64 ", allocation gone %" PRIu64
                "\n"
                "statistics: dropped: wrong key %" PRIu64 ", no request %" PRIu64
                ", address unproven %" PRIu64 ", address moved %" PRIu64 ", not bound %" PRIu64
                ", over the relay's rate %" PRIu64 ", not sent %" PRIu64 "\n",
                s.hosts, s.allocations, s.registrations, s.refreshes, s.challenges, s.lookups,
                s.found, s.notifications, s.binds, s.relayed, s.relayed_bytes, s.bad_proof, s.full,
                s.busy, s.over_rate, s.gone, s.bad_tag, s.not_for_us, s.over_account, s.moved,
                s.unbound, s.over_bytes, s.send_failed);
  return text;
}
