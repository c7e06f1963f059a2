// A local channel by which this user's other programs speak to a running host: one request, one
// answer, both text. It lies inside the host's store, so whoever has the store finds the host that
// runs on it; and since one host at most can have the channel, a store has one host at most. Only
// the same user (or root) gets an answer. What the texts mean is in host_commands.h.
//
// A request and an answer each end with a zero byte, so that one that was cut off by the end of its
// sender is never taken for a whole one. A peer has 5 s for its request and to take its answer; the
// channel serves one after the other, so a sender waits twice that.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

inline constexpr std::size_t COMMAND_REQUEST_MAX = 4'096;  // bytes

class CommandServer {
 public:
  // Runs on the channel's own thread, one request at a time. Neither text holds a zero byte.
  using Handler = std::function<std::string(const std::string& request)>;

  enum class Start {
    Running,
    AnotherHost,  // one runs on this store already
    Failed,       // the channel can't be made here
  };
  // Makes the directory where it is missing. `error` says what is wrong unless it runs.
  static Start start(const std::filesystem::path& directory, Handler handler,
                     std::unique_ptr<CommandServer>* server, std::string* error);
  // Waits for a request that is being handled, not for a peer. Others are refused from then on.
  virtual ~CommandServer() = default;
};

enum class CommandResult {
  Answered,
  NotRunning,  // nobody listens
  Failed,      // somebody does, but `error` happened
};
CommandResult send_command(const std::filesystem::path& directory, const std::string& request,
                           std::string* answer, std::string* error);
