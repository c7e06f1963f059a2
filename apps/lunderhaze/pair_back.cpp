#include "apps/lunderhaze/pair_back.h"

#include <algorithm>

#include "connection/clock.h"
#include "control/client_store.h"
#include "control/pair_back.h"
#include "control/text.h"

namespace {

constexpr std::uint64_t SAME_OFFER_US = 60'000'000;

std::string clean(const char* name) {
  char cleaned[64];
  conn_clean_name(cleaned, name);
  return cleaned;
}

PairBackOffer read_offer(const lund_pair_back& back, const lund_session_info& session) {
  PairBackOffer offer;
  std::copy_n(session.client_key, LUND_KEY_SIZE, offer.key.begin());
  offer.name = clean(back.name[0] != 0 ? back.name : session.client_name);
  if (back.back_value == 0) return offer;  // no port: reachable through servers alone
  for (int i = 0; i < back.back_count; ++i) {
    const lund_rv_endpoint address = pair_back_address(back.back_values[i], back.back_value);
    offer.addresses += (i == 0 ? "" : ", ") + addr_string(address);
    if (i == 0) offer.lan = address;
  }
  return offer;
}

}  // namespace

std::string PairBackOffer::code() const {
  return code_of(key.data());
}

bool PairBackOffer::same(const PairBackOffer& other) const {
  return key == other.key && name == other.name && addresses == other.addresses;
}

int PairBackOffers::answer(const lund_pair_back& back, const lund_session_info& session) {
  PairBackOffer offer = read_offer(back, session);
  const std::uint64_t now = lund_now_us();
  {
    const std::lock_guard lock(mutex_);
    const auto same_client = [&](const Entry& entry) { return entry.offer.key == offer.key; };
    auto known = std::ranges::find_if(entries_, same_client);
    if (known != entries_.end() && known->offer.same(offer)) {
      const bool lapsed =
          known->decision == Decision::Refused && now - known->last_us > SAME_OFFER_US;
      known->last_us = now;
      if (!lapsed) return known->decision == Decision::Accepted ? 1 : 0;
    }
    // Devices come and go, and each is heard only while it is paired: the oldest has left.
    if (known == entries_.end() && entries_.size() == LUND_CLIENTS_MAX) known = entries_.begin();
    if (known != entries_.end()) entries_.erase(known);
    entries_.push_back({std::move(offer), Decision::None, now});
  }
  on_new_();
  return 0;
}

std::optional<PairBackOffer> PairBackOffers::undecided() const {
  const std::lock_guard lock(mutex_);
  const auto entry = std::ranges::find(entries_, Decision::None, &Entry::decision);
  if (entry == entries_.end()) return std::nullopt;
  return entry->offer;
}

void PairBackOffers::decide(const PairBackOffer& offer, bool accepted) {
  const std::lock_guard lock(mutex_);
  for (Entry& entry : entries_)
    if (entry.offer.same(offer)) entry.decision = accepted ? Decision::Accepted : Decision::Refused;
}

bool remember_host(const PairBackOffer& offer, const std::filesystem::path& directory,
                   std::string* error) {
  ClientStore store;
  if (!store.open(directory, error)) return false;
  lund_host_entry host;
  const int known = lund_host_list_find(&store.hosts(), offer.key.data());
  if (known >= 0) host = store.hosts().entries[known];
  std::ranges::copy(offer.key, host.key);
  conn_clean_name(host.name, offer.name.c_str());
  if (offer.lan.family != 0) host.lan_endpoint = offer.lan;
  return store.put(host, error);
}
