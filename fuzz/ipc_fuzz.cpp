// The frames of the local channels over any bytes. What is accepted is what the encoder makes of
// it, byte for byte; what is refused leaves the outputs alone.
#include <cstdint>
#include <vector>

#include "control/ipc_protocol.h"
#include "fuzz/require.h"

namespace {

using namespace host_service;
using Bytes = std::vector<unsigned char>;

void check_header(const Bytes& bytes) {
  std::uint16_t verb = 0;
  std::uint32_t length = 0;
  if (!decode_header(bytes.data(), bytes.size(), &verb, &length)) return;
  require(bytes.size() >= HEADER_BYTES && length <= PAYLOAD_MAX, "a header keeps its limits");
}

void check_request(const Bytes& bytes) {
  const Request before{Verb::Heartbeat, {1, 2, 3}};
  Request request = before;
  if (decode_request(bytes.data(), bytes.size(), &request)) {
    require(valid_request(request), "what decodes is valid");
    require(encode_request(request) == bytes, "a request keeps its bytes");
  } else {
    require(request.verb == before.verb && request.payload == before.payload,
            "a refused request leaves the output alone");
  }
}

// Whatever verb the bytes hold is the one expected, so that more is reached than that comparison.
void check_response(const Bytes& bytes) {
  std::uint16_t verb = 0;
  std::uint32_t length = 0;
  if (!decode_header(bytes.data(), bytes.size(), &verb, &length)) return;
  const auto expected = static_cast<Verb>(verb & ~RESPONSE_FLAG);
  Status status = Status::Denied;
  std::string text = "before";
  if (decode_response(bytes.data(), bytes.size(), expected, &status, &text)) {
    require(encode_response(expected, status, text) == bytes, "a response keeps its bytes");
  } else {
    require(status == Status::Denied && text == "before",
            "a refused response leaves the outputs alone");
  }
}

void check_settings(const Bytes& bytes) {
  Settings settings;
  if (decode_settings(bytes, &settings))
    require(encode_settings(settings) == bytes, "settings keep their bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes bytes(data, data + size);
  check_header(bytes);
  check_request(bytes);
  check_response(bytes);
  check_settings(bytes);
  return 0;
}
