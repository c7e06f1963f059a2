// Pipes are named pipes in byte mode, each instance with a client of its own, local ones alone.
//
// The peer is the process whose id the system gives for the other end, held from the connection on:
// by then its id can't pass to another. Whoever ended before the connection could leave a pipe of
// its own behind, handed to an accomplice, and its id to one of the system's: so a server counts
// only if the pipe itself is the system's or the administrators'.
#include "control/ipc_transport.h"

#include <memory>
#include <utility>

#include "control/pipe_platform.h"
#include "control/windows/object_owner.h"
#include "control/windows/overlapped.h"
#include "control/windows/path_trust.h"
#include "control/windows/security_attributes.h"
#include "control/windows/wide_text.h"

namespace host_service {

namespace {

constexpr DWORD INSTANCES_MAX = 4;
constexpr DWORD BUFFER_BYTES = FRAME_MAX;  // of each direction
constexpr wchar_t SYSTEM_AND_ADMINISTRATORS[] = L"O:SYG:SYD:P(A;;GA;;;SY)(A;;GRGW;;;BA)";

using IdOf = BOOL(WINAPI*)(HANDLE, PULONG);

Process peer_of(HANDLE pipe, IdOf id_of) {
  ULONG id = 0;
  return id_of(pipe, &id) && id != 0 ? Process::open(id) : Process();
}

bool is_trusted_ones(HANDLE pipe) {
  const ObjectOwner owner(pipe, SE_KERNEL_OBJECT);
  return owner.get() != nullptr && is_system_or_administrators(owner.get());
}

const Process& nobody() {
  static const Process none;
  return none;
}

}  // namespace

struct Pipe::End {
  const Process& known(IdOf id_of) const {
    ULONG id = 0;
    const bool open = PeekNamedPipe(handle.get(), nullptr, 0, nullptr, nullptr, nullptr) != FALSE;
    return open && id_of(handle.get(), &id) && id == peer.id() ? peer : nobody();
  }

  Handle handle;
  bool serves = false;
  Process peer;  // of a server: once it has a client
};

Pipe::Pipe() = default;
Pipe::Pipe(std::unique_ptr<End> end) : end_(std::move(end)) {}
Pipe::~Pipe() = default;
Pipe::Pipe(Pipe&& other) noexcept = default;
Pipe& Pipe::operator=(Pipe&& other) noexcept = default;

Pipe create_pipe(const std::string& name, bool admin_access, bool first_instance) {
  SecurityAttributes attributes(admin_access ? SYSTEM_AND_ADMINISTRATORS : SYSTEM_ALONE);
  if (!attributes) return {};
  auto end = std::make_unique<Pipe::End>();
  end->handle = owned_file(
      CreateNamedPipeW(to_wide(name).c_str(),
                       PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED |
                           (first_instance ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0),
                       PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                       INSTANCES_MAX, BUFFER_BYTES, BUFFER_BYTES, PIPE_LIMIT_MS, attributes.get()));
  end->serves = true;
  return end->handle ? Pipe(std::move(end)) : Pipe();
}

bool connect_pipe(Pipe& pipe, WakeEvent* stop, std::uint32_t timeout_ms) {
  if (!pipe || !pipe.end()->serves) return false;
  Pipe::End& end = *pipe.end();
  if (!wait_for_client(end.handle.get(), pipe_platform::deadline_of(timeout_ms), stop))
    return false;
  if (!end.peer) end.peer = peer_of(end.handle.get(), GetNamedPipeClientProcessId);
  return true;
}

void wait_client_close(Pipe& pipe, WakeEvent* stop, std::uint32_t timeout_ms) {
  unsigned char byte;
  if (pipe)
    read_some(pipe.end()->handle.get(), &byte, 1, pipe_platform::deadline_of(timeout_ms), stop);
}

namespace pipe_platform {

// The server is told who asks, and can do nothing in that one's name: by the name of a pipe nobody
// knows whose it is.
Open try_open(const std::string& name, Pipe* pipe) {
  auto end = std::make_unique<Pipe::End>();
  end->handle = owned_file(
      CreateFileW(to_wide(name).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                  FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
  if (!end->handle) {
    const DWORD error = GetLastError();
    return error == ERROR_PIPE_BUSY || error == ERROR_FILE_NOT_FOUND ? Open::Retry : Open::Failed;
  }
  if (is_trusted_ones(end->handle.get()))
    end->peer = peer_of(end->handle.get(), GetNamedPipeServerProcessId);
  *pipe = Pipe(std::move(end));
  return Open::Connected;
}

std::size_t receive(Pipe::End& end, unsigned char* bytes, std::size_t size, const WakeEvent* stop,
                    std::uint64_t deadline_us) {
  return read_some(end.handle.get(), bytes, size, deadline_us, stop);
}

std::size_t send(Pipe::End& end, const unsigned char* bytes, std::size_t size,
                 const WakeEvent* stop, std::uint64_t deadline_us) {
  return write_some(end.handle.get(), bytes, size, deadline_us, stop);
}

const Process& client(Pipe::End& end) {
  return end.serves ? end.known(GetNamedPipeClientProcessId) : nobody();
}

const Process& server(Pipe::End& end) {
  return end.serves ? nobody() : end.known(GetNamedPipeServerProcessId);
}

}  // namespace pipe_platform

}  // namespace host_service
