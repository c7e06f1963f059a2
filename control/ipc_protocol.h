// The binary protocol between the service and the host worker, and between an administrator's
// program and the service: frames, verbs, status numbers, the settings record. Pure.
//
// One request gets one response. Both ends validate everything; what breaks a rule is not answered
// but taken as a broken peer. Integers are little-endian.
//
//   frame      "LHIP" | u16 version 1 | u16 verb, of a response with 0x8000 | u32 length | payload
//   response   payload: u32 status | text, UTF-8 by convention, without a terminator
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "connection/wiped.h"

namespace host_service {

inline constexpr std::size_t HEADER_BYTES = 12;
inline constexpr std::size_t PAYLOAD_MAX = 16'384;
inline constexpr std::size_t FRAME_MAX = HEADER_BYTES + PAYLOAD_MAX;
inline constexpr std::size_t RESPONSE_TEXT_MAX = PAYLOAD_MAX - 4;
inline constexpr std::uint16_t RESPONSE_FLAG = 0x8000;

inline constexpr std::uint32_t PAIRING_SECONDS_MIN = 30;
inline constexpr std::uint32_t PAIRING_SECONDS_MAX = 300;
inline constexpr std::size_t PASSWORD_MAX = 256;  // bytes

enum class Verb : std::uint16_t {  // request payload:
  Status = 1,                      // empty
  PairingOpen = 2,                 // u32 seconds, 30 to 300
  PairingClose = 3,                // empty
  SetPassword = 4,                 // 1 to 256 bytes of text
  ClearPassword = 5,               // empty
  RemoveDevice = 6,                // the device's 32-byte key
  SetRelays = 7,                   // text, as lund_relay_config_save makes it
  SetSettings = 8,                 // a Settings record
  Verb9 = 9,                       // empty; the worker denies it, the service may use it
  Stop = 10,                       // empty
  Heartbeat = 32,                  // worker to service, empty
  SecureAttention = 33,            // worker to service, empty
};

enum class Status : std::uint32_t {
  Ok = 0,
  Invalid = 1,      // an argument was refused
  Denied = 2,       // not allowed, or the peer is not trusted
  Unavailable = 3,  // the endpoint could not be reached
  Persistence = 4,  // the host store failed; the worker stops
  Failed = 5,       // the operation or the exchange failed
};

struct Request {
  Verb verb = Verb::Status;
  std::vector<unsigned char> payload;  // of some a secret: wiped with it
  ~Request() { wipe_owned(payload); }
};

// Stream defaults: 16 bytes, as payload of SetSettings and as the host file "settings".
struct Settings {
  std::uint16_t port = 9876;            // 1 to 65535
  std::uint16_t fps = 60;               // 1 to 240
  std::uint32_t bitrate_kbps = 20'000;  // 500 to 500,000
  std::uint8_t codec = 1;               // 1 HEVC, 2 H.264
  std::uint8_t audio = 1;               // 0, 1
  std::uint8_t virtual_display = 1;     // 0 off, 1 auto, 2 always
  std::uint8_t mac_keys = 1;            // 0, 1
  std::uint16_t max_datagram = 1'400;   // 512 to 1400
};

std::uint32_t read_u32(const unsigned char* bytes);

// From at least HEADER_BYTES bytes; does not look at the verb, so that a reader can size the
// payload first. Both are written before the length is judged.
bool decode_header(const unsigned char* bytes, unsigned long long size, std::uint16_t* verb,
                   std::uint32_t* length);

// Encoders give an empty vector on refusal; decoders leave their outputs alone then.
bool valid_request(const Request& request);
std::vector<unsigned char> encode_request(const Request& request);
bool decode_request(const unsigned char* bytes, unsigned long long size, Request* request);

std::vector<unsigned char> encode_response(Verb verb, Status status, const std::string& text);
bool decode_response(const unsigned char* bytes, unsigned long long size, Verb expected,
                     Status* status, std::string* text);

std::vector<unsigned char> encode_settings(const Settings& settings);
// `settings` may be null: then it only judges.
bool decode_settings(const std::vector<unsigned char>& bytes, Settings* settings);

}  // namespace host_service
