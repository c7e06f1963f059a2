// One exchange on a command channel, as both platforms hold it: texts that a zero byte ends, over a
// link to one peer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "control/command_channel.h"

namespace command_exchange {

inline constexpr std::uint64_t PEER_US = 5'000'000;
inline constexpr std::uint64_t SENDER_US = 2 * PEER_US;

// Each moves from 1 to `size` bytes, 0 when the peer has ended or its time is over.
class Link {
 public:
  virtual std::size_t receive(void* bytes, std::size_t size) const = 0;
  virtual std::size_t send(const void* bytes, std::size_t size) const = 0;

 protected:
  ~Link() = default;
};

// The host's part. What is no whole request is dropped, with a line in the log.
void answer(const Link& link, const CommandServer::Handler& handler);

// The sender's.
CommandResult ask(const Link& link, const std::string& request, std::string* answer,
                  std::string* error);

// The platforms' own part of CommandServer::start, in a directory that is there.
class Server : public CommandServer {
 public:
  // Once. Unless it runs then, `error` says why, and nothing is left but to let it go.
  virtual Start listen_in(const std::filesystem::path& directory, std::string* error) = 0;
};
std::unique_ptr<Server> make_server(CommandServer::Handler handler);

// And of send_command, with a request that isn't too long.
CommandResult ask_host(const std::filesystem::path& directory, const std::string& request,
                       std::string* answer, std::string* error);

// Their words for what goes wrong around an exchange.
inline constexpr char NO_STORE[] = "no command channel: there is no store";
inline constexpr char REQUEST_TOO_LONG[] = "the request is too long";
std::string another_host(const std::filesystem::path& directory);
std::string no_channel(const std::filesystem::path& directory, const std::string& why);
std::string unreachable(const std::string& why);

}  // namespace command_exchange
