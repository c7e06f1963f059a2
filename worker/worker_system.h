// What the worker's process takes from its platform, apart from what its host does
// (host/platform.h): the native one by default, a fake in tests. Main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "control/ipc_transport.h"
#include "control/wake_event.h"

namespace host_app {

class WorkerSystem {
 public:
  virtual ~WorkerSystem() = default;

  // From here on libraries are loaded from directories that only administrators can change.
  virtual void restrict_library_directories() = 0;
  // This process is the system's own, in a session that has a desktop.
  virtual bool in_system_session();

  // One worker a machine, whatever its session.
  enum class Lock {
    Held,
    Unprotected,  // it can't be made such that nobody else could take it
    NotHeld,      // another worker has it, or it could not be made
  };
  virtual Lock take_lock() = 0;
  virtual void release_lock() = 0;

  // The platform's own requests to end set this event from here on; null: none does any more.
  virtual void stop_on_signals(WakeEvent* stop) = 0;

  virtual host_service::Pipe open_pipe(const std::string& name, WakeEvent* stop);
  virtual bool pipe_server(host_service::Pipe& pipe, std::uint32_t pid);

  // While on, neither the displays nor the machine fall asleep by themselves. False when that can't
  // be had.
  virtual bool keep_display_awake(bool on) = 0;
};

std::unique_ptr<WorkerSystem> native_worker_system();

}  // namespace host_app
