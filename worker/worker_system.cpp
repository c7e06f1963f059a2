#include "worker/worker_system.h"

#include "control/security.h"

namespace host_app {

bool WorkerSystem::in_system_session() {
  std::uint32_t session = 0;
  return host_service::system_process(host_service::Process::current(), &session) && session != 0;
}

host_service::Pipe WorkerSystem::open_pipe(const std::string& name, WakeEvent* stop) {
  return host_service::open_pipe(name, stop, host_service::PIPE_LIMIT_MS);
}

bool WorkerSystem::pipe_server(host_service::Pipe& pipe, std::uint32_t pid) {
  return host_service::pipe_server(pipe, pid);
}

}  // namespace host_app
