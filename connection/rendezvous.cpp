#include "connection/rendezvous.h"

#include <monocypher.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string_view>

#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "connection/secure.h"

namespace {

constexpr std::string_view NET_KEY_LABEL = "lunderhaze-rv-v1";
constexpr std::string_view PROOF_LABEL = "lunderhaze-rv-proof-v1";
constexpr std::size_t TAG_SIZE = 16;
constexpr std::size_t ENDPOINT_ADDRESS = 3;  // offset behind family and port
constexpr std::uint8_t TARGET_MIN = 5;       // bytes of a key code
constexpr std::uint8_t TARGET_MAX = 16;      // bytes of a key id

enum Field : std::uint8_t {
  NONE = 0,
  KEY = 1,
  TOKEN = 2,
  PROOF = 3,
  PUNCH_TOKEN = 4,
  TARGET = 5,
  NONCE = 6,
  STATUS = 7,
  SIDE = 8,
  TARGET_SIZE = 9,
  LEASE = 10,
  ALLOCATION = 11,
  OBSERVED = 12,
  PEER = 13,
  LAN = 14,
};

// The fields of each message in wire order, NONE behind the last.
struct Layout {
  std::uint8_t type;
  Field fields[10];
};
constexpr Layout LAYOUTS[] = {
    {LUND_RV_REGISTER, {KEY, TOKEN, PROOF, LAN}},
    {LUND_RV_CHALLENGE, {TOKEN, KEY, OBSERVED}},
    {LUND_RV_REGISTERED, {OBSERVED, LEASE}},
    {LUND_RV_LOOKUP, {NONCE, TARGET_SIZE, TARGET, LAN}},
    {LUND_RV_LOOKUP_RESULT,
     {NONCE, STATUS, KEY, PEER, LAN, OBSERVED, PUNCH_TOKEN, ALLOCATION, TOKEN}},
    {LUND_RV_PUNCH_NOTIFY, {NONCE, PEER, LAN, PUNCH_TOKEN, ALLOCATION, TOKEN}},
    {LUND_RV_PUNCH, {PUNCH_TOKEN, NONCE, SIDE}},
    {LUND_RV_PUNCH_ACK, {PUNCH_TOKEN, NONCE, SIDE}},
    {LUND_RV_BIND, {ALLOCATION, TOKEN, SIDE}},
    {LUND_RV_BOUND, {ALLOCATION, STATUS, OBSERVED}},
    {LUND_RV_ERROR, {NONCE, STATUS}},
};

const Layout* layout_of(std::uint8_t type) {
  const Layout* found = std::find_if(std::begin(LAYOUTS), std::end(LAYOUTS),
                                     [type](const Layout& l) { return l.type == type; });
  return found != std::end(LAYOUTS) ? found : nullptr;
}

// family, port, address; what is neither IPv4 nor IPv6 goes out as zeros.
void store_endpoint(std::uint8_t out[LUND_RV_ENDPOINT_SIZE], const lund_rv_endpoint& endpoint) {
  std::memset(out, 0, LUND_RV_ENDPOINT_SIZE);
  if (endpoint.family != 4 && endpoint.family != 6) return;
  out[0] = endpoint.family;
  store_le(out + 1, endpoint.port);
  std::memcpy(out + ENDPOINT_ADDRESS, endpoint.address.data(), endpoint.family == 4 ? 4 : 16);
}

// Appends fields; past the end it only notes the overflow.
class Writer {
 public:
  Writer(std::uint8_t* out, std::size_t capacity) : at_(out), end_(out + capacity) {}

  void put(const std::uint8_t* bytes, std::size_t size) {
    ok_ = ok_ && static_cast<std::size_t>(end_ - at_) >= size;
    if (!ok_) return;
    std::memcpy(at_, bytes, size);
    at_ += size;
  }
  template <std::size_t N>
  void put(const std::uint8_t (&bytes)[N]) {
    put(bytes, N);
  }
  template <std::unsigned_integral T>
  void put(T value) {
    std::uint8_t bytes[sizeof(T)];
    store_le(bytes, value);
    put(bytes);
  }
  void put(const lund_rv_endpoint& endpoint) {
    std::uint8_t bytes[LUND_RV_ENDPOINT_SIZE];
    store_endpoint(bytes, endpoint);
    put(bytes);
  }
  void put_lan(const lund_rv_endpoint* lan, int count) {
    put(static_cast<std::uint8_t>(count));
    for (int i = 0; i < count; ++i) put(lan[i]);
  }

  std::uint8_t* at() const { return at_; }
  bool ok() const { return ok_; }

 private:
  std::uint8_t* at_;
  std::uint8_t* end_;
  bool ok_ = true;
};

class Reader {
 public:
  Reader(const std::uint8_t* at, const std::uint8_t* end) : at_(at), end_(end) {}

  void get(std::uint8_t* out, std::size_t size) {
    ok_ = ok_ && static_cast<std::size_t>(end_ - at_) >= size;
    if (!ok_) return;
    std::memcpy(out, at_, size);
    at_ += size;
  }
  template <std::size_t N>
  void get(std::uint8_t (&out)[N]) {
    get(out, N);
  }
  template <std::unsigned_integral T>
  void get(T& value) {
    std::uint8_t bytes[sizeof(T)] = {};
    get(bytes);
    value = load_le<T>(bytes);
  }
  void get(lund_rv_endpoint& endpoint) {
    get(endpoint.family);
    get(endpoint.port);
    get(endpoint.address.data(), endpoint.address.size());
    require(endpoint.family == 0 || endpoint.family == 4 || endpoint.family == 6);
    if (endpoint.family == 4) std::fill(endpoint.address.begin() + 4, endpoint.address.end(), 0);
  }
  void get_lan(lund_rv_message& message) {
    std::uint8_t count = 0;
    get(count);
    require(count <= LUND_RV_LAN_MAX);
    if (!ok_) return;
    message.lan_count = count;
    for (int i = 0; i < count; ++i) get(message.lan[i]);
  }
  void require(bool condition) { ok_ = ok_ && condition; }

  bool ok_at_end() const { return ok_ && at_ == end_; }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
  bool ok_ = true;
};

void put_field(Writer& out, Field field, const lund_rv_message& m) {
  switch (field) {
    case KEY:
      return out.put(m.key);
    case TOKEN:
      return out.put(m.token);
    case PROOF:
      return out.put(m.proof);
    case PUNCH_TOKEN:
      return out.put(m.punch_token);
    case TARGET:
      return out.put(m.target);
    case NONCE:
      return out.put(m.nonce);
    case STATUS:
      return out.put(m.status);
    case SIDE:
      return out.put(m.side);
    case TARGET_SIZE:
      return out.put(m.target_size);
    case LEASE:
      return out.put(m.lease_seconds);
    case ALLOCATION:
      return out.put(m.allocation);
    case OBSERVED:
      return out.put(m.observed);
    case PEER:
      return out.put(m.peer);
    case LAN:
      return out.put_lan(m.lan, m.lan_count);
    case NONE:
      return;
  }
}

void get_field(Reader& in, Field field, lund_rv_message& m) {
  switch (field) {
    case KEY:
      return in.get(m.key);
    case TOKEN:
      return in.get(m.token);
    case PROOF:
      return in.get(m.proof);
    case PUNCH_TOKEN:
      return in.get(m.punch_token);
    case TARGET:
      return in.get(m.target);
    case NONCE:
      return in.get(m.nonce);
    case STATUS:
      return in.get(m.status);
    case SIDE:
      return in.get(m.side);
    case TARGET_SIZE:
      in.get(m.target_size);
      return in.require(m.target_size >= TARGET_MIN && m.target_size <= TARGET_MAX);
    case LEASE:
      return in.get(m.lease_seconds);
    case ALLOCATION:
      return in.get(m.allocation);
    case OBSERVED:
      return in.get(m.observed);
    case PEER:
      return in.get(m.peer);
    case LAN:
      return in.get_lan(m);
    case NONE:
      return;
  }
}

void compute_tag(std::uint8_t tag[TAG_SIZE], const std::uint8_t* net_key, const std::uint8_t* bytes,
                 std::size_t size) {
  crypto_blake2b_keyed(tag, TAG_SIZE, net_key, LUND_KEY_SIZE, bytes, size);
}

// Hash of a label and some bytes.
void labelled_hash(std::uint8_t out[32], std::string_view label, const std::uint8_t* bytes,
                   std::size_t size) {
  crypto_blake2b_ctx context;
  crypto_blake2b_init(&context, 32);
  crypto_blake2b_update(&context, reinterpret_cast<const std::uint8_t*>(label.data()),
                        label.size());
  crypto_blake2b_update(&context, bytes, size);
  crypto_blake2b_final(&context, out);
  lund_secure_wipe(&context, sizeof(context));
}

int decode(const std::uint8_t* datagram, std::size_t size, const std::uint8_t* net_key,
           lund_rv_message& message) {
  if (datagram == nullptr || size < LUND_HEADER_SIZE) return LUND_ERR_MALFORMED;
  const Layout* layout = layout_of(datagram[2]);
  if (datagram[0] != LUND_MAGIC || datagram[1] != LUND_VERSION_PLAIN || datagram[3] != 0 ||
      layout == nullptr)
    return LUND_ERR_MALFORMED;
  const std::uint8_t* end = datagram + size;
  if (net_key != nullptr) {
    if (size < LUND_HEADER_SIZE + TAG_SIZE) return LUND_ERR_MALFORMED;
    end -= TAG_SIZE;
    std::uint8_t tag[TAG_SIZE];
    compute_tag(tag, net_key, datagram, size - TAG_SIZE);
    if (crypto_verify16(tag, end) != 0) return LUND_ERR_AUTH;
  }
  message.type = layout->type;
  Reader in(datagram + LUND_HEADER_SIZE, end);
  for (const Field field : layout->fields) get_field(in, field, message);
  return in.ok_at_end() ? LUND_OK : LUND_ERR_MALFORMED;
}

}  // namespace

void lund_rv_net_key(std::uint8_t out[32], const std::uint8_t* key, std::size_t key_size) {
  labelled_hash(out, NET_KEY_LABEL, key, key_size);
}

std::size_t lund_rv_encode(std::uint8_t* out, std::size_t capacity, const std::uint8_t* net_key,
                           const lund_rv_message* message) {
  if (out == nullptr || message == nullptr) return 0;
  const Layout* layout = layout_of(message->type);
  if (layout == nullptr || message->lan_count < 0 || message->lan_count > LUND_RV_LAN_MAX) return 0;
  Writer writer(out, capacity);
  const std::uint8_t header[] = {LUND_MAGIC, LUND_VERSION_PLAIN, message->type, 0, 0, 0, 0, 0};
  writer.put(header);
  for (const Field field : layout->fields) put_field(writer, field, *message);
  if (net_key != nullptr && writer.ok()) {
    std::uint8_t tag[TAG_SIZE];
    compute_tag(tag, net_key, out, static_cast<std::size_t>(writer.at() - out));
    writer.put(tag);
  }
  return writer.ok() ? static_cast<std::size_t>(writer.at() - out) : 0;
}

int lund_rv_decode(const std::uint8_t* datagram, std::size_t size, const std::uint8_t* net_key,
                   lund_rv_message* message) {
  *message = {};
  const int result = decode(datagram, size, net_key, *message);
  if (result != LUND_OK) *message = {};
  return result;
}

int lund_rv_register_proof(std::uint8_t proof_out[16], const std::uint8_t own_secret[32],
                           const std::uint8_t server_public[32], const std::uint8_t challenge[16],
                           const std::uint8_t own_public[32], const lund_rv_endpoint* lan,
                           int lan_count) {
  std::uint8_t shared[32];
  std::uint8_t key[32];
  crypto_x25519(shared, own_secret, server_public);
  constexpr std::uint8_t ZERO[32] = {};
  const bool weak = crypto_verify32(shared, ZERO) == 0;
  labelled_hash(key, PROOF_LABEL, shared, sizeof(shared));

  std::uint8_t lan_bytes[1 + LUND_RV_LAN_MAX * LUND_RV_ENDPOINT_SIZE];
  Writer writer(lan_bytes, sizeof(lan_bytes));
  writer.put_lan(lan, std::clamp(lan_count, 0, LUND_RV_LAN_MAX));

  crypto_blake2b_ctx context;
  crypto_blake2b_keyed_init(&context, 16, key, sizeof(key));
  crypto_blake2b_update(&context, challenge, 16);
  crypto_blake2b_update(&context, own_public, 32);
  crypto_blake2b_update(&context, lan_bytes, static_cast<std::size_t>(writer.at() - lan_bytes));
  crypto_blake2b_final(&context, proof_out);

  lund_secure_wipe(&context, sizeof(context));
  lund_secure_wipe(shared, sizeof(shared));
  lund_secure_wipe(key, sizeof(key));
  return weak ? LUND_ERR_WEAK_KEY : LUND_OK;
}
