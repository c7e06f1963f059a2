// What the supervisor takes from the platform and from the pipes, so that tests stand in for both:
// the session to serve, the worker's process, the service's ends of its two pipes.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/service/worker_end.h"
#include "control/ipc_transport.h"

// A line for the service's log. Any thread.
using Say = std::function<void(const std::string& line)>;

using Environment = std::map<std::string, std::string>;

struct GraphicalSession {
  std::string name;          // for people: "session 3 of anna on :0"
  std::uint32_t number = 0;  // as security.h counts sessions
  // What a worker needs to reach its display and its sound, where being in the session isn't
  // enough.
  Environment environment;
  bool operator==(const GraphicalSession&) const = default;
};

struct SessionView {
  std::optional<GraphicalSession> session;  // the one to serve now
  std::string why;                          // there is none, in words
};

// Sets the supervisor's event when the answer changes.
class SessionSource {
 public:
  virtual ~SessionSource() = default;
  virtual SessionView active() = 0;
};

// A worker that was started. Sets the supervisor's event when it ends; a worker that still runs
// when this goes is killed.
class WorkerProcess {
 public:
  virtual ~WorkerProcess() = default;
  virtual std::uint32_t id() const = 0;  // its own until this goes, also after its end
  virtual std::optional<WorkerEnd> ended() = 0;
  virtual bool terminate() = 0;  // asks it to end; false where it can only be killed
  virtual void kill() = 0;
};

// The service's ends of one worker's pipes. Sets the supervisor's event at its first heartbeat. Any
// thread may call `request` and `heard_us`, the supervisor's the rest.
class WorkerLink {
 public:
  virtual ~WorkerLink() = default;  // closes
  // The worker runs: waits for it at both pipes, then answers what it says, until `close`.
  virtual void attach(std::uint32_t worker, std::uint32_t session) = 0;
  // When its last heartbeat came, by lund_now_us; 0 before the first.
  virtual std::uint64_t heard_us() const = 0;
  // Passes a request on and brings the worker's answer, which may hold a secret.
  virtual host_service::Result request(const host_service::Request& request) = 0;
  virtual void ask_to_stop() = 0;  // returns at once
  virtual void close() = 0;        // whoever waits in `request` gets Unavailable
};

// Both give null on failure.
using StartWorker = std::function<std::unique_ptr<WorkerProcess>(
    const std::vector<std::string>& arguments, const GraphicalSession& session,
    std::string* error)>;
using MakeLink = std::function<std::shared_ptr<WorkerLink>(const std::string& channel)>;
