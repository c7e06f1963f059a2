// Moves frames over local pipes whose ends are known: named pipes on Windows, Unix stream sockets
// on Linux. Every wait has a limit, and most a `stop` event (may be null) that ends it at once, so
// that no thread can hang on a silent or hostile peer. Re-entrant; one pipe may be read by one
// thread and written by another. Nothing here logs.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "control/ipc_protocol.h"
#include "control/security.h"
#include "control/wake_event.h"

namespace host_service {

inline constexpr std::uint32_t PIPE_LIMIT_MS = 5'000;

// The two pipes of a worker are this prefix with 32 lower-case hexadecimal digits, and the same
// with EVENTS_SUFFIX; the service's own, for administrators, is SERVICE_PIPE.
extern const char* const WORKER_PIPE_PREFIX;
extern const char* const EVENTS_SUFFIX;
extern const char* const SERVICE_PIPE;

// One end of a pipe, closed with its scope. Movable.
class Pipe {
 public:
  struct End;

  Pipe();
  explicit Pipe(std::unique_ptr<End> end);
  ~Pipe();
  Pipe(Pipe&& other) noexcept;
  Pipe& operator=(Pipe&& other) noexcept;

  explicit operator bool() const { return end_ != nullptr; }
  End* end() const { return end_.get(); }

 private:
  std::unique_ptr<End> end_;
};

// The server's end of one instance, of at most 4 at a time, each for one client: the name is served
// while any instance is there, so make the next before the last one goes. `admin_access`:
// administrators may open it, not only the system. `first_instance`: fails where somebody serves
// that name already. Empty on failure.
Pipe create_pipe(const std::string& name, bool admin_access, bool first_instance);
// The client's end; tries every 25 ms while the name is missing or busy. Empty on failure.
Pipe open_pipe(const std::string& name, WakeEvent* stop, std::uint32_t timeout_ms);
// Waits, as the server, for a client.
bool connect_pipe(Pipe& pipe, WakeEvent* stop, std::uint32_t timeout_ms);

// One frame, header and payload together; `frame` is replaced on success alone. The limit is for
// the whole frame and strict: what is complete after it fails too.
bool read_frame(Pipe& pipe, std::vector<unsigned char>* frame, WakeEvent* stop,
                std::uint32_t timeout_ms);
bool write_frame(Pipe& pipe, const std::vector<unsigned char>& frame, WakeEvent* stop,
                 std::uint32_t timeout_ms);
// Until the peer closes, sends anything, or the limit ends.
void wait_client_close(Pipe& pipe, WakeEvent* stop, std::uint32_t timeout_ms);

// The process at the other end; 0 when it can't be told, as when that end has been closed.
std::uint32_t pipe_client_id(Pipe& pipe);
std::uint32_t pipe_server_id(Pipe& pipe);
// Is the client an administrator's program (`require_admin`), or else this very worker, the
// system's own, in that session?
bool pipe_client(Pipe& pipe, bool require_admin, const Process* worker_process,
                 std::uint32_t session);
// Is the server the system's live process `pid` (any, if 0)?
bool pipe_server(Pipe& pipe, std::uint32_t pid);

// A whole exchange as a client; each of open, write and read is limited to PIPE_LIMIT_MS.
struct Result {
  Status status = Status::Failed;
  std::string text;  // of some a secret: wiped with it
  ~Result() { wipe_owned(text); }
};
Result transact(const std::string& name, const Request& request, WakeEvent* stop);

}  // namespace host_service
