// The worker's side of the conversation with its service, over two pipes. On the command pipe the
// service asks and the worker carries out; on the events pipe the worker sends heartbeats and
// requests for secure attention, so that each end notices within 5 s that the other is gone.
//
// A thread for each pipe, and of its own: setting a password takes longer than a heartbeat may. Who
// the other end is counts only for the frame at hand: a service that has died may have left its
// pipe to somebody else. There is no partial failure: whatever breaks a rule sets `stop_event`, and
// nothing restarts a thread.
//
// Each thread only repeats a step that is a function of its own, so that tests drive them.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "control/ipc_transport.h"
#include "control/wake_event.h"

class HostServer;

namespace host_app {

class WorkerChannel {
 public:
  static constexpr std::uint32_t HEARTBEAT_MS = 100;

  // `stop_event` outlives the channel. `supervisor` is the service's process id.
  WorkerChannel(host_service::Pipe commands, host_service::Pipe events, WakeEvent& stop_event,
                std::uint32_t supervisor);
  ~WorkerChannel();  // sets `stop_event`
  WorkerChannel(const WorkerChannel&) = delete;
  WorkerChannel& operator=(const WorkerChannel&) = delete;

  void start(HostServer& server);
  void join();

  std::atomic<bool> sas_requested{false};  // goes out instead of the next heartbeat

  // The threads' steps; false when the thread is to end.
  bool command_step(HostServer& server);
  bool event_step();

 private:
  bool supervisor_still_there();
  bool answer(HostServer& server, const host_service::Request& request);
  bool ask(host_service::Verb verb, host_service::Status* status);
  bool end();  // of the worker; false

  host_service::Pipe commands_;
  host_service::Pipe events_;
  WakeEvent& stop_event_;
  const std::uint32_t supervisor_;
  std::thread events_thread_;
  std::thread commands_thread_;
};

}  // namespace host_app
