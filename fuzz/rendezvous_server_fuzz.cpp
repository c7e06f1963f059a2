// The rendezvous server under sequences of datagrams from a few addresses and of passing time. The
// fuzzer holds the shared key and the hosts' secrets, knows all tokens that were ever sent, and may
// forge any sender. After each step: nobody is sent anything unasked, a stranger no more than came
// in his name and one answer, and the tables keep to their limits.
//
// The input is a list of steps: an operation byte, then what the operation reads.
//   bits 0-2  operation, below
//   bits 3-5  the address that it comes from, one of eight
//   bits 6-7  clock, ahead of the step: 0, 100 ms, 2 s, 21 s and a tick
#include <monocypher.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "apps/rendezvous/server.h"
#include "connection/protocol.h"
#include "connection/secure.h"
#include "fuzz/input.h"
#include "fuzz/repeatable_random.h"
#include "fuzz/require.h"
#include "tests/support/engine_peer.h"
#include "tests/support/virtual_time.h"

namespace {

enum operation : std::uint8_t {
  RAW = 0,       // size, bytes: as they are
  TAGGED = 1,    // type, size, bytes: as a message's body, with a good tag
  REGISTER = 2,  // which host, LAN count: with the proof of the last challenge for it
  LOOKUP = 3,    // which host, by how many bytes
  BIND = 4,      // which of the tokens told so far, side
  SEALED = 5,    // size: what a relay takes for a record
  CHANGED = 6,   // position, mask: the last datagram with a byte changed
  REPEATED = 7,  // the last datagram again
};

constexpr std::size_t ADDRESSES = 8;
constexpr std::size_t HOSTS = 3;
constexpr std::size_t TOKENS_MAX = 256;  // as many as a byte can choose from
constexpr std::uint8_t KEY[] = {'k', 'e', 'y'};
constexpr RendezvousLimits LIMITS{.hosts = 2,
                                  .allocations = 3,
                                  .accounts = 64,
                                  .requests_per_second = 5,
                                  .proofs_per_second = 5,
                                  .relay_bytes_per_second = 10'000};

const lund_keypair HOST_KEYS[HOSTS] = {peer::keypair_of(1), peer::keypair_of(2),
                                       peer::keypair_of(3)};

// Two of them the same computer's, two IPv6 of one network.
const std::array<lund_rv_endpoint, ADDRESSES> AT = {
    peer::at("198.51.100.1:9876"), peer::at("198.51.100.2:9876"), peer::at("203.0.113.1:5000"),
    peer::at("203.0.113.1:5001"),  peer::at("203.0.113.2:5000"),  peer::at("192.0.2.1:1"),
    peer::at("[2001:db8::1]:1"),   peer::at("[2001:db8::2]:1")};

// Whose accounts are one.
std::size_t party_of(std::size_t address) {
  return address == 3 ? 2 : address == 7 ? 6 : address;
}

struct party {
  std::size_t received = 0;
  std::size_t sent = 0;
  bool proven = false;  // has ever been
};

struct told_token {
  std::size_t to;
  lund_rv_message message;  // a LOOKUP_RESULT or a PUNCH_NOTIFY
};

class world {
 public:
  world() {
    virtual_time::reset();
    repeatable_random_seed(1);
    server_ = std::make_unique<RendezvousServer>(
        KEY, sizeof KEY, LIMITS,
        [this](const lund_rv_endpoint& to, const std::uint8_t* bytes, std::size_t size) {
          on_sent(to, {bytes, bytes + size});
          return true;
        });
    require(server_->ready(), "the server starts");
    lund_rv_net_key(net_key_, KEY, sizeof KEY);
  }

  void step(Input& in);
  void check() const;

 private:
  using Bytes = Input::Bytes;

  void receive(const Bytes& bytes);
  void receive(const lund_rv_message& message);
  void receive_tagged(std::uint8_t type, const Bytes& body);
  lund_rv_message register_message(const Bytes& how);
  void on_sent(const lund_rv_endpoint& to, const Bytes& bytes);
  void on_answer(std::size_t to, const lund_rv_message& answer);
  bool has_registered(std::size_t address) const;
  bool was_told(std::size_t address, const std::uint8_t token[16]) const;

  std::unique_ptr<RendezvousServer> server_;
  std::uint8_t net_key_[LUND_KEY_SIZE];
  std::size_t from_ = 0;
  Bytes last_;
  bool with_tag_ = false;  // what was received last
  std::size_t answers_ = 0;
  std::array<party, ADDRESSES> parties_;
  std::set<std::pair<std::size_t, Bytes>> challenges_;  // who was sent which
  std::array<std::optional<lund_rv_message>, HOSTS> challenge_of_;
  std::vector<told_token> tokens_;
  std::set<std::size_t> registered_, bound_;  // addresses that have ever been
};

void world::receive(const Bytes& bytes) {
  last_ = bytes;
  lund_rv_message message;
  with_tag_ = lund_rv_decode(bytes.data(), bytes.size(), net_key_, &message) == LUND_OK;
  answers_ = 0;
  parties_[party_of(from_)].received += bytes.size();
  server_->receive(bytes.data(), bytes.size(), AT[from_]);
}

void world::receive(const lund_rv_message& message) {
  Bytes bytes(LUND_RV_MESSAGE_MAX);
  bytes.resize(lund_rv_encode(bytes.data(), bytes.size(), net_key_, &message));
  receive(bytes);
}

void world::receive_tagged(std::uint8_t type, const Bytes& body) {
  Bytes bytes = {LUND_MAGIC, LUND_VERSION_PLAIN, type, 0, 0, 0, 0, 0};
  bytes.insert(bytes.end(), body.begin(), body.end());
  std::uint8_t tag[16];
  crypto_blake2b_keyed(tag, sizeof tag, net_key_, sizeof net_key_, bytes.data(), bytes.size());
  bytes.insert(bytes.end(), tag, tag + sizeof tag);
  receive(bytes);
}

void world::on_sent(const lund_rv_endpoint& to, const Bytes& bytes) {
  const auto at = std::find_if(AT.begin(), AT.end(),
                               [&](const auto& one) { return lund_rv_endpoint_equal(one, to); });
  require(at != AT.end(), "only those are sent anything who have sent something");
  const auto address = static_cast<std::size_t>(at - AT.begin());
  parties_[party_of(address)].sent += bytes.size();
  lund_rv_message message;
  if (lund_rv_decode(bytes.data(), bytes.size(), net_key_, &message) != LUND_OK) {
    require(!with_tag_ && bytes == last_,
            "what is relayed is what came, and never the server's word");
    require(bound_.count(address) == 1 && bound_.count(from_) == 1, "both have bound");
    require(address != from_, "nothing comes back");
    return;
  }
  require(with_tag_, "nothing is answered without the tag");
  if (message.type == LUND_RV_PUNCH_NOTIFY) {
    require(registered_.count(address) == 1, "only hosts are notified");
  } else {
    require(address == from_, "the answer goes to who asked");
    require(++answers_ == 1, "one answer");
  }
  on_answer(address, message);
}

void world::on_answer(std::size_t to, const lund_rv_message& answer) {
  const Bytes token(std::begin(answer.token), std::end(answer.token));
  lund_rv_message request;
  lund_rv_decode(last_.data(), last_.size(), net_key_, &request);
  switch (answer.type) {
    case LUND_RV_CHALLENGE:
      challenges_.emplace(to, token);
      for (std::size_t i = 0; i < HOSTS; ++i)
        if (std::memcmp(request.key, HOST_KEYS[i].public_key, LUND_KEY_SIZE) == 0)
          challenge_of_[i] = answer;
      break;
    case LUND_RV_REGISTERED:
      require(
          challenges_.count({to, Bytes(std::begin(request.token), std::end(request.token))}) == 1,
          "who is registered has answered a challenge sent there");
      registered_.insert(to);
      parties_[party_of(to)].proven = true;
      break;
    case LUND_RV_BOUND:
      if (answer.status != 0) break;
      require(was_told(to, request.token), "who has bound was told the token at his address");
      bound_.insert(to);
      parties_[party_of(to)].proven = true;
      break;
    case LUND_RV_LOOKUP_RESULT:
    case LUND_RV_PUNCH_NOTIFY:
      if (answer.status != 0) break;
      if (!was_told(to, answer.token) && tokens_.size() < TOKENS_MAX)
        tokens_.push_back({to, answer});
      break;
    default:
      require(answer.type == LUND_RV_ERROR, "a server's message");
      break;
  }
}

bool world::has_registered(std::size_t address) const {
  return std::any_of(registered_.begin(), registered_.end(),
                     [&](std::size_t one) { return party_of(one) == party_of(address); });
}

// A host's token may have gone to where it was registered before, and be shown from where it is
// now.
bool world::was_told(std::size_t address, const std::uint8_t token[16]) const {
  return std::any_of(tokens_.begin(), tokens_.end(), [&](const told_token& told) {
    return std::memcmp(told.message.token, token, 16) == 0 &&
           (party_of(told.to) == party_of(address) ||
            (told.message.type == LUND_RV_PUNCH_NOTIFY && has_registered(address)));
  });
}

lund_rv_message world::register_message(const Bytes& how) {
  const std::size_t host = how[0] % HOSTS;
  lund_rv_message message;
  message.type = LUND_RV_REGISTER;
  std::memcpy(message.key, HOST_KEYS[host].public_key, LUND_KEY_SIZE);
  message.lan_count = how[1] % (LUND_RV_LAN_MAX + 1);
  for (int i = 0; i < message.lan_count; ++i) message.lan[i] = AT[static_cast<std::size_t>(i)];
  if (!challenge_of_[host]) return message;
  const lund_rv_message& challenge = *challenge_of_[host];
  std::memcpy(message.token, challenge.token, sizeof message.token);
  lund_rv_register_proof(message.proof, HOST_KEYS[host].secret, challenge.key, challenge.token,
                         message.key, message.lan, message.lan_count);
  return message;
}

void world::step(Input& in) {
  constexpr std::uint64_t CLOCK_MS[] = {0, 100, 2'000, 21'000};
  const std::uint8_t op = in.byte();
  virtual_time::advance_ms(CLOCK_MS[op >> 6]);
  if (op >> 6 == 3) server_->tick();
  from_ = op >> 3 & 7;
  lund_rv_message message;
  switch (op & 7) {
    case RAW:
      return receive(in.block());
    case TAGGED: {
      const std::uint8_t type = in.byte();
      return receive_tagged(type, in.block());
    }
    case REGISTER: {
      const std::uint8_t host = in.byte();
      return receive(register_message({host, in.byte()}));
    }
    case LOOKUP:
      message.type = LUND_RV_LOOKUP;
      lund_key_id(message.target, HOST_KEYS[in.byte() % HOSTS].public_key);
      message.target_size = static_cast<std::uint8_t>(5 + in.byte() % 12);
      return receive(message);
    case BIND: {
      const std::uint8_t which = in.byte();
      message.side = in.byte();
      if (!tokens_.empty()) {
        const lund_rv_message& told = tokens_[which % tokens_.size()].message;
        message.allocation = told.allocation;
        std::memcpy(message.token, told.token, sizeof message.token);
      }
      message.type = LUND_RV_BIND;
      return receive(message);
    }
    case SEALED: {
      Bytes bytes(2U + in.byte() * 8U, 7);
      bytes[0] = LUND_MAGIC;
      bytes[1] = LUND_VERSION_SEALED;
      return receive(bytes);
    }
    case CHANGED: {
      const std::uint8_t position = in.byte();
      const std::uint8_t mask = in.byte();
      Bytes changed = last_;
      if (!changed.empty()) changed[position % changed.size()] ^= mask;
      return receive(changed);
    }
    default:
      return receive(Bytes(last_));
  }
}

void world::check() const {
  constexpr std::size_t ONE_ANSWER = 256;
  for (const party& one : parties_)
    require(one.proven || one.sent <= one.received + ONE_ANSWER,
            "a stranger is sent no more than came in his name, and one answer");
  const RendezvousStatistics statistics = server_->statistics();
  require(statistics.hosts <= LIMITS.hosts, "the hosts keep to their limit");
  require(statistics.allocations <= LIMITS.allocations, "the allocations keep to theirs");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  world hosted;
  Input in(data, size);
  for (int steps = 0; !in.done() && steps < 500; ++steps) {
    hosted.step(in);
    hosted.check();
  }
  return 0;
}
