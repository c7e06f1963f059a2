// Looking for hosts on the LAN: whom to ask, when to ask again, and which answer counts. No socket:
// the owner sends the questions and hands in the answers. Answers prove nothing; whoever uses an
// address that came by one learns by the handshake who is there.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "connection/netsock.h"
#include "connection/protocol.h"

// A host that answered, once however many of its addresses did.
struct FoundHost {
  lund_discover_reply reply;
  std::vector<lund_rv_endpoint> addresses;  // with the port it listens on; the most telling first
};

// The broadcast address of every network that this computer is on, and this computer.
std::vector<lund_rv_endpoint> discover_targets(std::uint16_t port);

// Adds what `from` has answered to question `nonce`; null for anything else, or when full.
const FoundHost* take_discover_reply(std::vector<FoundHost>* hosts, std::uint32_t nonce,
                                     const std::uint8_t* datagram, std::size_t size,
                                     const lund_rv_endpoint& from);

// What an answer must show to count.
struct LanWanted {
  enum class By {
    Nothing,  // no search
    LanId,    // a host that is known; by its name while its id isn't
    Name,     // one to pair with
    Any,      // one to pair with by its key code, which only the pairing shows
  };
  By by = By::Nothing;
  std::uint32_t lan_id = 0;
  std::string name;
  std::uint16_t port = 0;  // where to ask
};
bool is_wanted(const LanWanted& wanted, const lund_discover_reply& reply);

// Asks soon at first, for the user waits, then so seldom that it costs nothing.
class LanSearch {
 public:
  LanSearch() = default;  // of nothing
  LanSearch(LanWanted wanted, std::uint64_t now_us);

  bool due(std::uint64_t now_us) const;
  void skip(std::uint64_t now_us);  // the question that is due isn't needed
  // The question that is due, for every target.
  std::size_t ask(std::uint64_t now_us, std::uint8_t* packet, std::size_t capacity);
  std::uint16_t port() const { return wanted_.port; }

  // The new address to try that an answer gave; null when it isn't the host that is wanted, or when
  // so many were given that more would crowd out other paths.
  const lund_rv_endpoint* take(const std::uint8_t* datagram, std::size_t size,
                               const lund_rv_endpoint& from);
  // By which `address` is known on the LAN, 0 when nobody answered from there.
  std::uint32_t lan_id_at(const lund_rv_endpoint& address) const;

 private:
  LanWanted wanted_;
  std::uint64_t started_us_ = 0, next_us_ = 0;
  int asked_ = 0;
  std::uint32_t nonce_ = 0;
  std::vector<FoundHost> found_;
  std::vector<lund_rv_endpoint> candidates_;
};
