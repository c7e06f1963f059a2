#include "control/host_commands.h"

#include <charconv>

#include "connection/lists.h"
#include "control/command_channel.h"

namespace {

using Kind = HostRequest::Kind;

constexpr char DONE = '+';
constexpr char REFUSED = '-';

struct Word {
  const char* text;
  Kind kind;
};
constexpr Word WORDS[] = {
    {"status", Kind::Status},       {"relays", Kind::Relays}, {"pair", Kind::Pair},
    {"authorize", Kind::Authorize}, {"remove", Kind::Remove}, {"mute", Kind::Mute},
    {"clipboard", Kind::Clipboard},
};

// What stands before the first blank, and what stands behind it.
struct Split {
  std::string first;
  std::string rest;
};
Split split(const std::string& text) {
  const std::size_t blank = text.find(' ');
  if (blank == std::string::npos) return {text, {}};
  return {text.substr(0, blank), text.substr(blank + 1)};
}

bool parse_key(const std::string& text, HostRequest* request) {
  return lund_hex_decode(request->key.data(), request->key.size(), text.c_str()) == 0;
}

bool parse_arguments(const std::string& text, HostRequest* request) {
  switch (request->kind) {
    case Kind::Status:
    case Kind::Relays:
      return text.empty();
    case Kind::Pair: {
      const auto seconds = parse_number(text, 1, PAIRING_SECONDS_MAX);
      request->seconds = seconds.value_or(0);
      return seconds.has_value();
    }
    case Kind::Authorize: {
      const Split parts = split(text);
      char name[64];
      conn_clean_name(name, parts.rest.c_str());
      request->name = name;
      return parse_key(parts.first, request);
    }
    case Kind::Remove:
      return parse_key(text, request);
    case Kind::Mute:
    case Kind::Clipboard:
      request->on = parse_switch(text);
      return text.empty() || request->on;
  }
  return false;
}

}  // namespace

std::string format_request(const HostRequest& request) {
  std::string text;
  for (const Word& word : WORDS)
    if (word.kind == request.kind) text = word.text;
  if (request.kind == Kind::Pair) text += " " + std::to_string(request.seconds);
  if (request.kind == Kind::Authorize || request.kind == Kind::Remove) {
    char key[2 * LUND_KEY_SIZE + 1];
    lund_hex_encode(key, request.key.data(), request.key.size());
    text += std::string(" ") + key;
  }
  if (request.kind == Kind::Authorize) text += " " + request.name;
  if (request.kind == Kind::Mute || request.kind == Kind::Clipboard)
    text += !request.on ? "" : *request.on ? " on" : " off";
  return text;
}

std::optional<HostRequest> parse_request(const std::string& text) {
  const Split parts = split(text);
  for (const Word& word : WORDS) {
    if (parts.first != word.text) continue;
    HostRequest request;
    request.kind = word.kind;
    if (!parse_arguments(parts.rest, &request)) return std::nullopt;
    return request;
  }
  return std::nullopt;
}

std::string format_answer(const HostAnswer& answer) {
  return (answer.done ? DONE : REFUSED) + answer.text;
}

std::optional<HostAnswer> parse_answer(const std::string& text) {
  if (text.empty() || (text[0] != DONE && text[0] != REFUSED)) return std::nullopt;
  return HostAnswer{text[0] == DONE, text.substr(1)};
}

HostReply ask_host(const std::filesystem::path& directory, const HostRequest& request,
                   std::string* text) {
  std::string received;
  switch (send_command(directory, format_request(request), &received, text)) {
    case CommandResult::NotRunning:
      *text = "the host is not running";
      return HostReply::NotRunning;
    case CommandResult::Failed:
      return HostReply::Failed;
    case CommandResult::Answered:
      break;
  }
  const std::optional<HostAnswer> answer = parse_answer(received);
  *text = answer ? answer->text : "the running host gave no answer that is known here";
  if (!answer) return HostReply::Failed;
  return answer->done ? HostReply::Done : HostReply::Refused;
}

std::optional<bool> parse_switch(const std::string& text) {
  if (text != "on" && text != "off") return std::nullopt;
  return text == "on";
}

std::optional<std::uint32_t> parse_number(const std::string& text, std::uint32_t low,
                                          std::uint32_t high) {
  std::uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || value < low || value > high) return std::nullopt;
  return value;
}
