// The rendezvous decoder over any datagram, with and without a net key: what decodes survives
// encoding, and nothing but its own tag opens a tagged message.
#include <cstring>
#include <vector>

#include "connection/rendezvous.h"
#include "connection/secure.h"
#include "fuzz/require.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes encoded(const lund_rv_message& message, const std::uint8_t* net_key) {
  Bytes out(LUND_RV_MESSAGE_MAX);
  out.resize(lund_rv_encode(out.data(), out.size(), net_key, &message));
  return out;
}
int decode(const Bytes& bytes, const std::uint8_t* net_key, lund_rv_message* message) {
  return lund_rv_decode(bytes.data(), bytes.size(), net_key, message);
}

void check_message(const lund_rv_message& message, const std::uint8_t* net_key) {
  const Bytes once = encoded(message, net_key);
  require(!once.empty(), "what decodes can be encoded and fits the buffer");
  lund_rv_message again;
  require(decode(once, net_key, &again) == LUND_OK, "what was encoded decodes");
  require(encoded(again, net_key) == once, "encoding is stable");
}

void check_tag(const lund_rv_message& message, const std::uint8_t* net_key) {
  Bytes tagged = encoded(message, net_key);
  lund_rv_message ignored;
  require(decode(tagged, nullptr, &ignored) == LUND_ERR_MALFORMED, "a tag isn't taken for fields");
  tagged.back() ^= 1;
  require(decode(tagged, net_key, &ignored) == LUND_ERR_AUTH, "a wrong tag is refused");
  require(ignored.type == 0, "a failure leaves no record");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::uint8_t net_key[32];
  lund_rv_net_key(net_key, data, size < 8 ? size : 8);
  lund_rv_message message;
  const Bytes datagram(data, data + size);
  if (decode(datagram, net_key, &message) == LUND_OK) check_message(message, net_key);
  if (decode(datagram, nullptr, &message) == LUND_OK) {
    check_message(message, nullptr);
    check_message(message, net_key);
    check_tag(message, net_key);
  }
  return 0;
}
