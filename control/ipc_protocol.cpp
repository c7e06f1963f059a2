#include "control/ipc_protocol.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include "connection/byte_order.h"
#include "control/utf8.h"

namespace host_service {

namespace {

constexpr std::array<unsigned char, 4> MAGIC = {'L', 'H', 'I', 'P'};
constexpr std::uint16_t VERSION = 1;
constexpr std::size_t STATUS_BYTES = 4;
constexpr std::size_t DEVICE_KEY_BYTES = 32;
constexpr std::size_t SETTINGS_BYTES = 16;
constexpr auto LAST_STATUS = static_cast<std::uint32_t>(Status::Failed);

// Views only: what is refused was never copied, and so needs no wiping.
using Bytes = std::span<const unsigned char>;

// It passes through zero-ended strings later on, so no zero byte either.
bool is_text(Bytes bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return is_utf8(text) && text.find('\0') == std::string_view::npos;
}

bool read_settings(Bytes bytes, Settings* settings) {
  if (bytes.size() != SETTINGS_BYTES) return false;
  const unsigned char* const in = bytes.data();
  const Settings read{.port = load_le<std::uint16_t>(in),
                      .fps = load_le<std::uint16_t>(in + 2),
                      .bitrate_kbps = load_le<std::uint32_t>(in + 4),
                      .codec = in[8],
                      .audio = in[9],
                      .virtual_display = in[10],
                      .mac_keys = in[11],
                      .max_datagram = load_le<std::uint16_t>(in + 12)};
  const auto reserved = load_le<std::uint16_t>(in + 14);
  const bool valid = read.port != 0 && read.fps >= 1 && read.fps <= 240 &&
                     read.bitrate_kbps >= 500 && read.bitrate_kbps <= 500'000 &&
                     (read.codec == 1 || read.codec == 2) && read.audio <= 1 &&
                     read.virtual_display <= 2 && read.mac_keys <= 1 && read.max_datagram >= 512 &&
                     read.max_datagram <= 1'400 && reserved == 0;
  if (valid && settings != nullptr) *settings = read;
  return valid;
}

bool valid_payload(std::uint16_t verb, Bytes payload) {
  if (payload.size() > PAYLOAD_MAX) return false;
  switch (static_cast<Verb>(verb)) {
    case Verb::Status:
    case Verb::PairingClose:
    case Verb::ClearPassword:
    case Verb::Verb9:
    case Verb::Stop:
    case Verb::Heartbeat:
    case Verb::SecureAttention:
      return payload.empty();
    case Verb::PairingOpen: {
      if (payload.size() != sizeof(std::uint32_t)) return false;
      const std::uint32_t seconds = read_u32(payload.data());
      return seconds >= PAIRING_SECONDS_MIN && seconds <= PAIRING_SECONDS_MAX;
    }
    case Verb::SetPassword:
      return !payload.empty() && payload.size() <= PASSWORD_MAX && is_text(payload);
    case Verb::RemoveDevice:
      return payload.size() == DEVICE_KEY_BYTES;
    case Verb::SetRelays:
      return !payload.empty() && is_text(payload);
    case Verb::SetSettings:
      return read_settings(payload, nullptr);
  }
  return false;
}

// One allocation of the right size, so that no copy of a secret is left behind by growth.
std::vector<unsigned char> frame_of(std::uint16_t verb, std::size_t payload_size) {
  std::vector<unsigned char> frame(HEADER_BYTES + payload_size);
  std::ranges::copy(MAGIC, frame.begin());
  store_le(frame.data() + 4, VERSION);
  store_le(frame.data() + 6, verb);
  store_le(frame.data() + 8, static_cast<std::uint32_t>(payload_size));
  return frame;
}

// The payload of a frame that is exactly as long as its header says.
bool read_frame_of(const unsigned char* bytes, unsigned long long size, std::uint16_t* verb,
                   Bytes* payload) {
  std::uint32_t length = 0;
  if (!decode_header(bytes, size, verb, &length) || size != HEADER_BYTES + length) return false;
  *payload = Bytes(bytes + HEADER_BYTES, length);
  return true;
}

}  // namespace

std::uint32_t read_u32(const unsigned char* bytes) {
  return load_le<std::uint32_t>(bytes);
}

bool decode_header(const unsigned char* bytes, unsigned long long size, std::uint16_t* verb,
                   std::uint32_t* length) {
  if (bytes == nullptr || size < HEADER_BYTES || verb == nullptr || length == nullptr ||
      !std::equal(MAGIC.begin(), MAGIC.end(), bytes) ||
      load_le<std::uint16_t>(bytes + 4) != VERSION)
    return false;
  *verb = load_le<std::uint16_t>(bytes + 6);
  *length = load_le<std::uint32_t>(bytes + 8);
  return *length <= PAYLOAD_MAX;
}

bool valid_request(const Request& request) {
  return valid_payload(static_cast<std::uint16_t>(request.verb), request.payload);
}

std::vector<unsigned char> encode_request(const Request& request) {
  if (!valid_request(request)) return {};
  std::vector<unsigned char> frame =
      frame_of(static_cast<std::uint16_t>(request.verb), request.payload.size());
  std::ranges::copy(request.payload, frame.begin() + HEADER_BYTES);
  return frame;
}

bool decode_request(const unsigned char* bytes, unsigned long long size, Request* request) {
  std::uint16_t verb = 0;
  Bytes payload;
  if (request == nullptr || !read_frame_of(bytes, size, &verb, &payload) ||
      !valid_payload(verb, payload))
    return false;
  request->verb = static_cast<Verb>(verb);
  request->payload.assign(payload.begin(), payload.end());
  return true;
}

std::vector<unsigned char> encode_response(Verb verb, Status status, const std::string& text) {
  if (text.size() > RESPONSE_TEXT_MAX) return {};
  std::vector<unsigned char> frame =
      frame_of(static_cast<std::uint16_t>(static_cast<std::uint16_t>(verb) | RESPONSE_FLAG),
               STATUS_BYTES + text.size());
  store_le(frame.data() + HEADER_BYTES, static_cast<std::uint32_t>(status));
  std::ranges::copy(text, frame.begin() + HEADER_BYTES + STATUS_BYTES);
  return frame;
}

bool decode_response(const unsigned char* bytes, unsigned long long size, Verb expected,
                     Status* status, std::string* text) {
  std::uint16_t verb = 0;
  Bytes payload;
  if (status == nullptr || text == nullptr || !read_frame_of(bytes, size, &verb, &payload) ||
      payload.size() < STATUS_BYTES ||
      verb != (static_cast<std::uint16_t>(expected) | RESPONSE_FLAG))
    return false;
  const std::uint32_t number = read_u32(payload.data());
  if (number > LAST_STATUS) return false;
  *status = static_cast<Status>(number);
  const Bytes words = payload.subspan(STATUS_BYTES);
  // By iterators of bytes it would go through a string of its own, and an answer may hold a PIN.
  text->assign(reinterpret_cast<const char*>(words.data()), words.size());
  return true;
}

std::vector<unsigned char> encode_settings(const Settings& settings) {
  std::vector<unsigned char> bytes(SETTINGS_BYTES);  // the last two stay zero
  store_le(bytes.data(), settings.port);
  store_le(bytes.data() + 2, settings.fps);
  store_le(bytes.data() + 4, settings.bitrate_kbps);
  bytes[8] = settings.codec;
  bytes[9] = settings.audio;
  bytes[10] = settings.virtual_display;
  bytes[11] = settings.mac_keys;
  store_le(bytes.data() + 12, settings.max_datagram);
  if (!decode_settings(bytes, nullptr)) return {};
  return bytes;
}

bool decode_settings(const std::vector<unsigned char>& bytes, Settings* settings) {
  return read_settings(bytes, settings);
}

}  // namespace host_service
