// What the worker returns: the only word that its service gets about a failed start. Each stands
// for one stage, in this order.
#pragma once

namespace host_app {

enum class ExitCode : int {
  Stopped = 0,      // the stop event was signalled: an orderly stop
  Refused = 1,      // wrong arguments, or this process isn't the system's in a session
  Unprotected = 2,  // the place of the one-worker lock is not safe from others
  NotAlone = 3,     // another worker has the lock, or it could not be made
  NoPeer = 4,       // a pipe could not be opened, or its server is not the supervisor
  Failed = 5,       // an exception left the start or the run
  StoreFailed = 6,  // the host store turned unhealthy while the worker ran
};

}  // namespace host_app
