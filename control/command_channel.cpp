#include "control/command_channel.h"

#include "control/command_exchange.h"
#include "control/store_platform.h"

using namespace command_exchange;

CommandServer::Start CommandServer::start(const std::filesystem::path& directory, Handler handler,
                                          std::unique_ptr<CommandServer>* server,
                                          std::string* error) {
  if (directory.empty() || !store_platform::make_directory(directory)) {
    *error = NO_STORE;
    return Start::Failed;
  }
  std::unique_ptr<Server> made = make_server(std::move(handler));
  const Start result = made->listen_in(directory, error);
  if (result == Start::Running) *server = std::move(made);
  return result;
}

CommandResult send_command(const std::filesystem::path& directory, const std::string& request,
                           std::string* answer, std::string* error) {
  if (request.size() > COMMAND_REQUEST_MAX) {
    *error = REQUEST_TOO_LONG;
    return CommandResult::Failed;
  }
  return directory.empty() ? CommandResult::NotRunning
                           : ask_host(directory, request, answer, error);
}
