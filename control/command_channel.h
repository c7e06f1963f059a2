// A local channel by which this user's other programs speak to a running host: one request, one
// answer, both text. It lies inside the host's store, so whoever has the store finds the host that
// runs on it. Only the same user (or root) gets an answer. Every exchange ends within 5 s, however
// slow or silent the peer. Link-time seam: one file a platform.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

inline constexpr std::size_t COMMAND_REQUEST_MAX = 4'096;  // bytes

class CommandServer {
 public:
  // Runs on the channel's own thread, one request at a time.
  using Handler = std::function<std::string(const std::string& request)>;

  // Null with `error` when another host runs on this store, or the channel can't be made.
  static std::unique_ptr<CommandServer> start(const std::filesystem::path& directory,
                                              Handler handler, std::string* error);
  // Waits for a request under way.
  virtual ~CommandServer() = default;
};

enum class CommandResult {
  Answered,
  NotRunning,  // nobody listens
  Failed,      // somebody does, but `error` happened
};
CommandResult send_command(const std::filesystem::path& directory, const std::string& request,
                           std::string* answer, std::string* error);
