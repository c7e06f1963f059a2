// What this user's programs ask of a running host over its command channel, and how the texts say
// it: "status", "relays", "pair SECONDS", "authorize KEY NAME", "remove KEY", "mute [on|off]",
// "clipboard [on|off]"; the answer is "+" or "-" and a text for a person. Pure but for ask_host.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "connection/secure.h"

inline constexpr std::uint32_t PAIRING_SECONDS = 120;
inline constexpr std::uint32_t PAIRING_SECONDS_MAX = 86'400;

struct HostRequest {
  enum class Kind {
    Status,     // a report
    Relays,     // the stored list of relay servers has changed
    Pair,       // open the pairing window for `seconds`
    Authorize,  // the device with `key`, called `name`, may connect from now on
    Remove,     // the device with `key` may not any more
    Mute,       // this computer's speakers are muted while a client streams
    Clipboard,  // the clipboard is shared with clients
  };
  Kind kind = Kind::Status;
  std::uint32_t seconds = PAIRING_SECONDS;  // 1..PAIRING_SECONDS_MAX
  std::array<std::uint8_t, LUND_KEY_SIZE> key{};
  std::string name;
  std::optional<bool> on;  // of a switch; without it, the answer only tells how it stands
};
std::string format_request(const HostRequest& request);
std::optional<HostRequest> parse_request(const std::string& text);

struct HostAnswer {
  bool done = false;  // otherwise `text` says why not
  std::string text;
};
std::string format_answer(const HostAnswer& answer);
std::optional<HostAnswer> parse_answer(const std::string& text);

enum class HostReply {
  Done,
  Refused,     // the host says why not
  NotRunning,  // no host runs on that store
  Failed,      // one does, but the channel failed it
};
// Blocks for 10 s at most. `text` is the answer's, or what failed.
HostReply ask_host(const std::filesystem::path& directory, const HostRequest& request,
                   std::string* text);

// "on" and "off".
std::optional<bool> parse_switch(const std::string& text);

// A number in decimal digits alone, within the range.
std::optional<std::uint32_t> parse_number(const std::string& text, std::uint32_t low,
                                          std::uint32_t high);
