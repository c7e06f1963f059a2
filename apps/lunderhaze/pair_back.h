// Offers by connected clients to be reached in return, as hosts, from this computer, and what a
// person here decided on each. The network must not wait for a person: an offer is answered with no
// as long as it is undecided; the client repeats it, and finds the decision then. An answer belongs
// to the client's key and to what it offered.
//
// `answer` is entered by the network's thread, the rest by the one that asks the person. One mutex.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "connection/conn_host.h"
#include "connection/protocol.h"

struct PairBackOffer {
  std::array<std::uint8_t, LUND_KEY_SIZE> key{};  // the client's, which its host shares
  std::string name;
  std::string addresses;  // for a person
  lund_rv_endpoint lan;   // the first of them; family 0 without one

  std::string code() const;
  bool same(const PairBackOffer& other) const;
};

class PairBackOffers {
 public:
  // `on_new` is called by `answer` for each offer that is to be decided.
  explicit PairBackOffers(std::function<void()> on_new) : on_new_(std::move(on_new)) {}

  int answer(const lund_pair_back& back, const lund_session_info& session);  // 1 accepted, 0 not

  std::optional<PairBackOffer> undecided() const;  // the oldest
  // Refused stands as long as the client repeats the offer: one that comes after a minute without
  // is a new one.
  void decide(const PairBackOffer& offer, bool accepted);

 private:
  enum class Decision { None, Accepted, Refused };
  struct Entry {
    PairBackOffer offer;
    Decision decision = Decision::None;
    std::uint64_t last_us = 0;
  };

  const std::function<void()> on_new_;
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;  // one a client
};

// Makes the offering computer a known host of this user's client, in `directory` (empty: its own).
bool remember_host(const PairBackOffer& offer, const std::filesystem::path& directory,
                   std::string* error);
