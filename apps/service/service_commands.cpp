#include "apps/service/service_commands.h"

using namespace host_service;

namespace {

std::string stored_line(const std::optional<Settings>& stored) {
  if (!stored) return "stored unreadable\n";
  std::string line = "stored";
  for (const std::uint32_t value :
       {std::uint32_t{stored->port}, std::uint32_t{stored->fps}, stored->bitrate_kbps,
        std::uint32_t{stored->codec}, std::uint32_t{stored->audio},
        std::uint32_t{stored->virtual_display}, std::uint32_t{stored->mac_keys},
        std::uint32_t{stored->max_datagram}})
    line += " " + std::to_string(value);
  return line + "\n";
}

Result pass_on(const Request& request, const WorkerSupervisor& supervisor) {
  if (const std::shared_ptr<WorkerLink> link = supervisor.link()) return link->request(request);
  return {Status::Unavailable, "no worker is running: " + supervisor.state().doing};
}

Result status(WorkerSupervisor& supervisor, const StoredSettings& stored) {
  std::string text = status_lines(supervisor.state(), stored());
  if (const std::shared_ptr<WorkerLink> link = supervisor.link()) {
    const Result worker = link->request({Verb::Status, {}});
    text += worker.status == Status::Ok ? worker.text : "worker: " + worker.text + "\n";
  }
  text.resize(std::min(text.size(), RESPONSE_TEXT_MAX));
  return {Status::Ok, text};
}

}  // namespace

std::string status_lines(const WorkerSupervisor::State& state,
                         const std::optional<Settings>& stored) {
  const std::string worker = state.worker != 0 ? "worker PID " + std::to_string(state.worker)
                                               : "no worker (" + state.doing + ")";
  return "service running; " + worker + "; session " + std::to_string(state.session) + "; starts " +
         std::to_string(state.starts) + "; last exit: " + state.last_exit + "\n" +
         stored_line(stored);
}

Result carry_out(const Request& request, WorkerSupervisor& supervisor,
                 const StoredSettings& stored) {
  switch (request.verb) {
    case Verb::Status:
      return status(supervisor, stored);
    case Verb::PairingOpen:
    case Verb::PairingClose:
    case Verb::SetPassword:
    case Verb::ClearPassword:
    case Verb::RemoveDevice:
    case Verb::SetRelays:
    case Verb::SetSettings:
      return pass_on(request, supervisor);
    case Verb::Verb9:
      if (supervisor.restart()) return {Status::Ok, "worker restarting"};
      return {Status::Unavailable, supervisor.state().doing};
    case Verb::Stop:
      supervisor.stop();
      return {Status::Ok, "service stopping"};
    case Verb::Heartbeat:
    case Verb::SecureAttention:
      break;
  }
  return {Status::Denied, "command denied"};
}
