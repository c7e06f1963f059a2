// The rendezvous servers of conn_client_fuzz. The search holds both net keys, so that it can say
// whatever a server could, whole and tagged, with what the engine waits for filled in; what isn't
// authentic must change nothing, and what the engine sends must be what its state says.
#pragma once

#include <monocypher.h>

#include <cstring>
#include <set>

#include "connection/conn_client_internal.h"
#include "fuzz/input.h"
#include "fuzz/require.h"
#include "tests/support/server_peer.h"

class Servers {
 public:
  using Bytes = Input::Bytes;
  static constexpr int COUNT = 2;

  // What follows is read as `kind` says. Bits 4: which server; bits 5-7: the manner.
  enum Kind : std::uint8_t {
    RESULT = 0,    // allocation, addresses
    FAILURE = 1,   // status
    ERROR = 2,     // status
    BOUND = 3,     // status; for the allocation that the client has
    PUNCH = 4,     // with the server's token
    ACK = 5,       // the same of a PUNCH_ACK
    STRANGE = 6,   // 16 bytes of a token
    RESOLVED = 7,  // which address, or none
    RAW = 8,       // type (its low four bits), size, bytes: any message, tagged
    OTHER_KEY = 9,
    OTHER_NONCE = 10,  // allocation, addresses, which bit; bit 7: of an ERROR
    OTHER_ALLOCATION = 11,
    REPEATED = 12,  // which of what was said before
    SAME = 13,      // a result for the allocation that the client has
  };
  enum Manner : std::uint8_t {  // below the first: as the server would send it
    OTHERS_TAG = 4,
    ELSEWHERE = 5,
    UNTAGGED = 6,
    CHANGED = 7,  // position, mask
  };

  static void configure(lund_client_config& config) {
    config.relays = peer::relays_of({PEERS[0], PEERS[1]});
    config.relays.servers[1].endpoint = {};
    config.lan_count = 1;
    config.lan_endpoints[0] = peer::at("192.168.1.20:50000");
  }
  void attach(lund_client* client, const std::uint8_t host_key[LUND_KEY_SIZE]) {
    client_ = client;
    std::memcpy(host_key_, host_key, sizeof host_key_);
  }

  // Looks at what the client sends. True for the rendezvous range, which isn't the host's.
  bool sent(const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size);

  // One step; `deliver(from, bytes)` hands the client a datagram.
  template <class Deliver>
  void step(Input& in, const lund_rv_endpoint& elsewhere, Deliver deliver);

  void check() const;

 private:
  static inline const server_peer PEERS[COUNT] = {{"203.0.113.99", "203.0.113.99:9877", 0xA1},
                                                  {"relay.example", "203.0.113.51:9877", 0xB2}};

  const lund_client_server& state(int index) const { return client_->servers[index]; }
  const lund_rv_endpoint& endpoint(int index) const {
    return client_->base.servers[index].endpoint;
  }
  bool knows_token(const std::uint8_t token[16]) const;
  lund_rv_message result(Input& in, int index) const;
  void resolve(std::uint8_t which);
  static Bytes tagged(Bytes bytes, const std::uint8_t net_key[32]);
  Bytes whole() const;
  void check_server(int index) const;

  template <class Deliver>
  void expect_nothing(const lund_rv_endpoint& from, const Bytes& bytes, Deliver deliver,
                      const char* what) {
    const Bytes before = whole();
    const std::size_t sent_before = sent_;
    deliver(from, bytes);
    require(whole() == before, what);
    require(sent_ == sent_before, "what changes nothing gets no answer");
  }
  template <class Deliver>
  void say(Input& in, int index, int manner, const Bytes& bytes, const lund_rv_endpoint& elsewhere,
           bool nothing, Deliver deliver);

  lund_client* client_ = nullptr;
  std::uint8_t host_key_[LUND_KEY_SIZE] = {};
  std::size_t sent_ = 0;
  std::vector<Bytes> said_[COUNT];          // with the tag
  std::set<std::uint32_t> results_[COUNT];  // allocations of results that answered a look-up
};

inline bool Servers::knows_token(const std::uint8_t token[16]) const {
  for (int i = 0; i < COUNT; ++i)
    if (state(i).state == LUND_LOOKUP_FOUND && std::memcmp(state(i).punch_token, token, 16) == 0)
      return true;
  return false;
}

inline Servers::Bytes Servers::whole() const {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(client_);
  return {bytes, bytes + sizeof *client_};
}

inline Servers::Bytes Servers::tagged(Bytes bytes, const std::uint8_t net_key[32]) {
  std::uint8_t tag[16];
  crypto_blake2b_keyed(tag, sizeof tag, net_key, 32, bytes.data(), bytes.size());
  bytes.insert(bytes.end(), tag, tag + sizeof tag);
  return bytes;
}

inline bool Servers::sent(const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size) {
  ++sent_;
  if (bytes[1] != LUND_VERSION_PLAIN || bytes[2] < LUND_RV_FIRST || bytes[2] > LUND_RV_LAST)
    return false;
  lund_rv_message message;
  const std::uint32_t mode = client_->path_mode;
  if (bytes[2] == LUND_RV_PUNCH || bytes[2] == LUND_RV_PUNCH_ACK) {
    require(lund_rv_decode(bytes, size, nullptr, &message) == LUND_OK, "a punch is well formed");
    require(message.side == 1 && mode != LUND_PATHS_RELAY, "a punch is the client's, and allowed");
    require(knows_token(message.punch_token), "a punch carries a found server's token");
    return true;
  }
  int by = 0;  // told by its tag: two servers may have been given one address
  while (by < COUNT && lund_rv_decode(bytes, size, PEERS[by].net_key, &message) != LUND_OK) ++by;
  require(by < COUNT && lund_rv_endpoint_equal(to, endpoint(by)), "a server gets its own tag");
  require(client_->mode != LUND_CLIENT_IDLE && mode != LUND_PATHS_NO_SERVERS,
          "nobody asks while idle, or where servers are not wanted");
  if (message.type == LUND_RV_LOOKUP) {
    require(message.nonce == state(by).nonce && state(by).tries < 12, "twelve look-ups, one nonce");
    require(client_->has_host_key || client_->has_code, "a look-up is for somebody");
    require(message.target_size == (client_->has_host_key ? 16 : 5), "by key or by code");
  } else {
    require(message.type == LUND_RV_BIND && message.side == 1, "a client looks up and binds");
    require(state(by).state == LUND_LOOKUP_FOUND && message.allocation == state(by).allocation &&
                mode != LUND_PATHS_DIRECT,
            "what is bound is what was found");
  }
  return true;
}

// Addresses by the bits of one byte: the peer, then how many of the LAN's.
inline lund_rv_message Servers::result(Input& in, int index) const {
  static const lund_rv_endpoint ADDRESSES[4] = {peer::at("198.51.100.7:9876"),
                                                peer::at("192.168.1.10:9876"),
                                                peer::at("[2001:db8::7]:7000"), lund_rv_endpoint{}};
  lund_rv_message message = server_peer::of_type(LUND_RV_LOOKUP_RESULT);
  message.nonce = state(index).nonce;
  std::memcpy(message.key, host_key_, sizeof message.key);
  message.allocation = in.byte();
  const std::uint8_t addresses = in.byte();
  message.peer = ADDRESSES[addresses & 3];
  message.lan_count = addresses >> 2 & 7;
  if (message.lan_count > LUND_RV_LAN_MAX) message.lan_count = LUND_RV_LAN_MAX;
  for (int i = 0; i < message.lan_count; ++i) {
    message.lan[i] = ADDRESSES[((addresses >> 5) + i) & 3];
    if (message.lan[i].family != 0) message.lan[i].port = static_cast<std::uint16_t>(100 + (i & 1));
  }
  std::memset(message.token, static_cast<int>(message.allocation), sizeof message.token);
  std::memset(message.punch_token, static_cast<int>(message.allocation ^ 0xFF) ^ index, 16);
  return message;
}

inline void Servers::resolve(std::uint8_t which) {
  static const lund_rv_endpoint ADDRESSES[4] = {PEERS[1].address, peer::at("203.0.113.52:1"),
                                                PEERS[0].address, peer::at("[2001:db8::99]:7000")};
  const bool found = (which & 4) != 0;
  const char* name = (which & 8) != 0 ? "203.0.113.99" : "Relay.Example";
  lund_client_server_resolved(client_, name, LUND_RELAY_PORT,
                              found ? &ADDRESSES[which & 3] : nullptr);
}

template <class Deliver>
void Servers::say(Input& in, int index, int manner, const Bytes& bytes,
                  const lund_rv_endpoint& elsewhere, bool nothing, Deliver deliver) {
  Bytes datagram = tagged(bytes, PEERS[manner == OTHERS_TAG ? 1 - index : index].net_key);
  lund_rv_endpoint from = endpoint(index);
  if (manner == ELSEWHERE || from.family == 0) from = elsewhere;
  if (manner == UNTAGGED) datagram = bytes;
  if (manner == CHANGED) {
    const std::uint8_t position = in.byte(), mask = in.byte();
    datagram[position % datagram.size()] ^= mask;
  }
  // Whose it is, is told by where it comes from: an address that both servers have is the first's,
  // and elsewhere may be where the other one is.
  const int by = conn_server_index(&client_->base, from);
  const bool punch = datagram[2] == LUND_RV_PUNCH || datagram[2] == LUND_RV_PUNCH_ACK;
  lund_rv_message message;
  const bool authentic =
      by >= 0 && !punch &&
      lund_rv_decode(datagram.data(), datagram.size(), PEERS[by].net_key, &message) == LUND_OK;
  if (punch && lund_rv_decode(datagram.data(), datagram.size(), nullptr, &message) == LUND_OK) {
    deliver(from, datagram);  // without a tag it is anybody's
    return;
  }
  if (!authentic || (nothing && by == index))
    return expect_nothing(from, datagram, deliver, "what isn't authentic changes nothing");
  if (message.type == LUND_RV_LOOKUP_RESULT && message.status == 0 &&
      message.nonce == state(by).nonce && client_engine::code_matches(*client_, message.key))
    results_[by].insert(message.allocation);
  if (said_[index].size() < 32) said_[index].push_back(bytes);
  deliver(from, datagram);
}

template <class Deliver>
void Servers::step(Input& in, const lund_rv_endpoint& elsewhere, Deliver deliver) {
  const std::uint8_t what = in.byte();
  const int index = what >> 4 & 1;
  const int manner = what >> 5;
  const bool picky = client_->has_host_key || client_->has_code;
  lund_rv_message message;
  bool nothing = false;
  switch (what & 15) {
    case RESULT:
      message = result(in, index);
      break;
    case FAILURE:
    case ERROR:
      message = server_peer::of_type((what & 15) == ERROR ? LUND_RV_ERROR : LUND_RV_LOOKUP_RESULT);
      message.nonce = state(index).nonce;
      message.status = in.byte();
      break;
    case BOUND:
      message = server_peer::of_type(LUND_RV_BOUND);
      message.allocation = state(index).allocation;
      message.status = in.byte();
      break;
    case PUNCH:
    case ACK: {
      const std::uint8_t type = (what & 15) == PUNCH ? LUND_RV_PUNCH : LUND_RV_PUNCH_ACK;
      const Bytes punch = peer::punch(type, state(index).punch_token, 9, 0);
      if (!knows_token(state(index).punch_token) || client_->path_mode == LUND_PATHS_RELAY)
        return expect_nothing(elsewhere, punch, deliver, "no punch before a host is found");
      deliver(elsewhere, punch);
      return;
    }
    case STRANGE: {
      Bytes token = in.bytes(16);
      token.resize(16);
      const Bytes punch = peer::punch(LUND_RV_PUNCH, token.data(), 9, 0);
      if (!knows_token(token.data()))
        return expect_nothing(elsewhere, punch, deliver, "a strange token is nothing");
      deliver(elsewhere, punch);
      return;
    }
    case RESOLVED:
      return resolve(in.byte());
    case RAW: {
      Bytes bytes(LUND_HEADER_SIZE);
      bytes[0] = LUND_MAGIC;
      bytes[1] = LUND_VERSION_PLAIN;
      bytes[2] = static_cast<std::uint8_t>(LUND_RV_FIRST + (in.byte() & 15));
      const Bytes body = in.block();
      bytes.insert(bytes.end(), body.begin(), body.end());
      return say(in, index, manner, bytes, elsewhere, false, deliver);
    }
    case OTHER_KEY:
      message = result(in, index);
      message.key[3] ^= 1;
      // Known, or told by the code's five bytes: of the key's id, all of which differ.
      nothing = picky && message.nonce == state(index).nonce;
      break;
    case OTHER_NONCE: {
      message = result(in, index);
      const std::uint8_t which = in.byte();
      if ((which & 0x80) != 0) message.type = LUND_RV_ERROR;
      message.nonce ^= 1U << (which & 31);
      nothing = true;
      break;
    }
    case OTHER_ALLOCATION:
      message = server_peer::of_type(LUND_RV_BOUND);
      message.allocation = state(index).allocation ^ 1U << (in.byte() & 31);
      nothing = true;
      break;
    case REPEATED: {
      const std::uint8_t which = in.byte();
      if (said_[index].empty()) return;
      const Bytes again = said_[index][which % said_[index].size()];
      return say(in, index, manner, again, elsewhere, false, deliver);
    }
    default:
      message = result(in, index);
      message.allocation = state(index).allocation;
      nothing = state(index).state == LUND_LOOKUP_FOUND;
      break;
  }
  Bytes bytes(LUND_RV_MESSAGE_MAX);
  bytes.resize(lund_rv_encode(bytes.data(), bytes.size(), nullptr, &message));
  say(in, index, manner, bytes, elsewhere, nothing, deliver);
}

inline void Servers::check_server(int index) const {
  const lund_client_server& server = state(index);
  const std::uint64_t now = lund_now_us();
  require(server.state <= LUND_LOOKUP_FOUND, "a server is idle, asked or found");
  require(server.tries >= 0 && server.tries <= 12, "twelve look-ups at most");
  require(server.candidate_count >= 0 && server.candidate_count <= 1 + LUND_RV_LAN_MAX,
          "five candidates at most");
  require(server.last_sent <= now && server.next_lookup <= now + 3'000'000,
          "a look-up is at most three seconds away");
  if (server.state != LUND_LOOKUP_FOUND) {
    const std::uint8_t none[16] = {};
    require(server.candidate_count == 0 && server.allocation == 0 && !server.relay_added &&
                std::memcmp(server.token, none, 16) == 0 &&
                std::memcmp(server.punch_token, none, 16) == 0,
            "what was found is gone with its server");
    return;
  }
  require(results_[index].count(server.allocation) != 0, "only a true result finds a host");
  require(server.candidate_count >= 1, "the peer is a candidate");
  require(server.next_bind <= now + 15'000'000 && server.next_punch <= now + 50'000 &&
              server.punch_until <= now + 2'500'000,
          "punch and bind are due in time");
  for (int i = 0; i < server.candidate_count; ++i)
    for (int k = 0; k < i; ++k)
      require(!lund_rv_endpoint_equal(server.candidates[i], server.candidates[k]),
              "candidates differ");
  if (server.relay_added)
    require(client_engine::path_find(*client_, endpoint(index)) >= 0, "a bound server is a path");
}

inline void Servers::check() const {
  for (int i = 0; i < COUNT; ++i) check_server(i);
  for (const lund_client_path& path : client_->paths) {
    if (!path.used) continue;
    require(path.server >= -1 && path.server < COUNT, "a path's server is one");
    if (path.path_class == LUND_PATH_P2P || path.path_class == LUND_PATH_RELAY)
      require(path.server >= 0, "punched and relayed paths come through a server");
  }
}
