// Pipes are Unix stream sockets, files in a directory that the system alone may enter. A name is
// served by the process that holds the lock on the file beside it; its instances share one
// listening socket, and a client that comes while none is free waits in that one's queue.
//
// The peer is the process that connected, or that began to listen, as the kernel noted it then.
// Only one that was the system's own at that time is known here: a program that gains rights later
// doesn't bring a connection of its caller's along.
#include "control/ipc_transport.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "control/linux/lock_file.h"
#include "control/linux/unix_socket.h"
#include "control/pipe_platform.h"

namespace host_service {

namespace {

constexpr int INSTANCES_MAX = 4;
constexpr int PEER_PIDFD = 77;  // SO_PEERPIDFD of Linux 6.5, which older headers don't have

struct Listener {
  ~Listener() {
    if (socket.get() >= 0) unlink(path.c_str());
  }
  std::filesystem::path path;
  LockFile lock;  // let go after the socket's file
  Descriptor socket;
};

// What this process serves. Its lock also covers the end of a listener, so that a name is either
// served or free.
struct Served {
  std::mutex mutex;
  std::map<std::string, std::weak_ptr<Listener>> listeners;
};
Served& served() {
  static Served all;
  return all;
}

bool answers(const UnixAddress& address) {
  const Descriptor socket = unix_socket();
  return connect(socket.get(), address.get(), address.size()) == 0 || errno == EAGAIN;
}

// Under the registry's lock.
std::shared_ptr<Listener> serve(const std::string& name) {
  auto listener = std::make_shared<Listener>();
  listener->path = name;
  const std::filesystem::path directory = listener->path.parent_path();
  UnixAddress address;
  if (!protected_ancestors(directory) || !create_private_directory(directory) ||
      listener->lock.acquire(name + ".lock") != LockFile::Result::Held || !address.fill(name))
    return nullptr;
  // Whoever serves without the lock doesn't keep to the rules; it is there all the same.
  if (answers(address)) return nullptr;
  listener->socket = listen_at(address, INSTANCES_MAX);
  return listener->socket.get() >= 0 ? listener : nullptr;
}

// Of the kernels that don't hand out the peer's own pidfd, one taken right after the connection has
// to do: its process could only be another if the peer ended and its id came round in between, and
// it would still have to be the system's.
Process peer_of(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.uid != 0 ||
      peer.pid <= 0)
    return {};
  const auto id = static_cast<std::uint32_t>(peer.pid);
  int handle = -1;
  size = sizeof handle;
  if (getsockopt(socket, SOL_SOCKET, PEER_PIDFD, &handle, &size) == 0)
    return Process::adopt(handle, id);
  return errno == ENOPROTOOPT ? Process::open(id) : Process();
}

const Process& nobody() {
  static const Process none;
  return none;
}

}  // namespace

struct Pipe::End {
  ~End() {
    if (!listener) return;
    const std::lock_guard lock(served().mutex);
    if (listener.use_count() == 1) served().listeners.erase(listener->path.string());
    listener.reset();
  }

  std::shared_ptr<Listener> listener;  // of a server
  Descriptor socket;                   // of a server: once it has a client
  Process peer;
};

Pipe::Pipe() = default;
Pipe::Pipe(std::unique_ptr<End> end) : end_(std::move(end)) {}
Pipe::~Pipe() = default;
Pipe::Pipe(Pipe&& other) noexcept = default;
Pipe& Pipe::operator=(Pipe&& other) noexcept = default;

// Administrators are user id 0 here, and so is the system.
Pipe create_pipe(const std::string& name, bool, bool first_instance) {
  auto end = std::make_unique<Pipe::End>();
  const std::lock_guard lock(served().mutex);
  std::weak_ptr<Listener>& entry = served().listeners[name];
  end->listener = entry.lock();
  // Each end holds it once, and `end` already does.
  if (end->listener && (first_instance || end->listener.use_count() > INSTANCES_MAX)) return {};
  if (!end->listener) entry = end->listener = serve(name);
  if (!end->listener) {
    served().listeners.erase(name);
    return {};
  }
  return Pipe(std::move(end));
}

bool connect_pipe(Pipe& pipe, WakeEvent* stop, std::uint32_t timeout_ms) {
  if (!pipe || !pipe.end()->listener) return false;
  Pipe::End& end = *pipe.end();
  if (end.socket.get() >= 0) return true;
  end.socket =
      accept_peer(end.listener->socket.get(), pipe_platform::deadline_of(timeout_ms), stop);
  if (end.socket.get() < 0) return false;
  end.peer = peer_of(end.socket.get());
  return true;
}

void wait_client_close(Pipe& pipe, WakeEvent* stop, std::uint32_t timeout_ms) {
  if (pipe && pipe.end()->socket.get() >= 0)
    wait_ready(pipe.end()->socket.get(), POLLIN, pipe_platform::deadline_of(timeout_ms), stop);
}

namespace pipe_platform {

namespace {

const Process& known(const Pipe::End& end) {
  pollfd polled{end.socket.get(), 0, 0};
  const bool open = end.socket.get() >= 0 && poll(&polled, 1, 0) == 0;
  return open ? end.peer : nobody();
}

}  // namespace

Open try_open(const std::string& name, Pipe* pipe) {
  UnixAddress address;
  auto end = std::make_unique<Pipe::End>();
  end->socket = unix_socket();
  if (end->socket.get() < 0) return Open::Failed;
  if (!address.fill(name) || connect(end->socket.get(), address.get(), address.size()) != 0) {
    // No such file; the file of a server that is gone; a full queue.
    const bool may_come = errno == ENOENT || errno == ECONNREFUSED || errno == EAGAIN;
    return may_come ? Open::Retry : Open::Failed;
  }
  end->peer = peer_of(end->socket.get());
  *pipe = Pipe(std::move(end));
  return Open::Connected;
}

std::size_t receive(Pipe::End& end, unsigned char* bytes, std::size_t size, const WakeEvent* stop,
                    std::uint64_t deadline_us) {
  return receive_some(end.socket.get(), bytes, size, deadline_us, stop);
}

std::size_t send(Pipe::End& end, const unsigned char* bytes, std::size_t size,
                 const WakeEvent* stop, std::uint64_t deadline_us) {
  return send_some(end.socket.get(), bytes, size, deadline_us, stop);
}

const Process& client(Pipe::End& end) {
  return end.listener ? known(end) : nobody();
}

const Process& server(Pipe::End& end) {
  return end.listener ? nobody() : known(end);
}

}  // namespace pipe_platform

}  // namespace host_service
