#include "control/command_exchange.h"

#include <cstring>
#include <optional>
#include <utility>

#include "control/log.h"

namespace command_exchange {

namespace {

constexpr std::size_t ANSWER_MAX = 1'048'576;  // bytes; what a sender takes from a host gone wrong

// Up to the closing zero byte, which isn't part of the text. Nothing when it is longer than
// `limit`, or the peer ended or was too slow before its end.
std::optional<std::string> receive_text(const Link& link, std::size_t limit) {
  std::string text;
  char bytes[4'096];
  while (text.size() <= limit) {
    const std::size_t got = link.receive(bytes, sizeof bytes);
    if (got == 0) break;
    const std::size_t size = strnlen(bytes, got);
    text.append(bytes, size);
    if (size < got && text.size() <= limit) return text;
  }
  return std::nullopt;
}

bool send_text(const Link& link, const std::string& text) {
  const std::size_t total = text.size() + 1;  // with the zero byte that ends it
  for (std::size_t done = 0; done < total;) {
    const std::size_t sent = link.send(text.c_str() + done, total - done);
    if (sent == 0) return false;
    done += sent;
  }
  return true;
}

}  // namespace

void answer(const Link& link, const CommandServer::Handler& handler) {
  const std::optional<std::string> request = receive_text(link, COMMAND_REQUEST_MAX);
  if (request)
    send_text(link, handler(*request));
  else
    hlog("command channel: a request that was incomplete, too slow or too long was dropped");
}

CommandResult ask(const Link& link, const std::string& request, std::string* answer,
                  std::string* error) {
  if (!send_text(link, request)) {
    *error = "the running host takes no request";
    return CommandResult::Failed;
  }
  std::optional<std::string> received = receive_text(link, ANSWER_MAX);
  if (!received) {
    *error = "the running host did not answer";
    return CommandResult::Failed;
  }
  *answer = std::move(*received);
  return CommandResult::Answered;
}

std::string another_host(const std::filesystem::path& directory) {
  return "another host runs on the store in " + directory.string();
}

std::string no_channel(const std::filesystem::path& directory, const std::string& why) {
  return "no command channel in " + directory.string() + " (" + why + ")";
}

std::string unreachable(const std::string& why) {
  return "the running host can't be reached (" + why + ")";
}

}  // namespace command_exchange
