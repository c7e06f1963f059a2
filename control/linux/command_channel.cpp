#include "control/command_channel.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "connection/clock.h"
#include "control/command_exchange.h"
#include "control/linux/deadline.h"
#include "control/linux/descriptor.h"
#include "control/linux/lock_file.h"
#include "control/linux/unix_socket.h"
#include "control/log.h"
#include "control/wake_event.h"

namespace {

using namespace command_exchange;

constexpr char SOCKET[] = "control.sock";
constexpr char LOCK[] = "control.lock";
constexpr int BACKLOG = 8;

std::string system_error() {
  return std::strerror(errno);
}

// To one peer: its deadline and the event, which may be null, end each wait.
struct SocketLink final : Link {
  SocketLink(int peer, std::uint64_t deadline, const WakeEvent* end)
      : socket(peer), deadline_us(deadline), stop(end) {}

  std::size_t receive(void* bytes, std::size_t size) const override {
    return receive_some(socket, bytes, size, deadline_us, stop);
  }
  std::size_t send(const void* bytes, std::size_t size) const override {
    return send_some(socket, bytes, size, deadline_us, stop);
  }

  const int socket;
  const std::uint64_t deadline_us;
  const WakeEvent* const stop;
};

bool is_this_user(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         (peer.uid == geteuid() || peer.uid == 0);
}

class SocketServer final : public Server {
 public:
  explicit SocketServer(Handler handler) : handler_(std::move(handler)) {}
  ~SocketServer() override {
    stop_.set();
    if (thread_.joinable()) thread_.join();
    if (listener_.get() >= 0) unlink(address_.path());
  }

  Start listen_in(const std::filesystem::path& directory, std::string* error) override {
    // The lock tells a live host from the socket that a killed one left, and two that start
    // together apart.
    const LockFile::Result locked = lock_.acquire(directory / LOCK);
    if (locked == LockFile::Result::Busy) {
      *error = another_host(directory);
      return Start::AnotherHost;
    }
    if (locked == LockFile::Result::Held && address_.fill(directory / SOCKET))
      listener_ = listen_at(address_, BACKLOG);
    if (listener_.get() < 0) {
      *error = no_channel(directory, system_error());
      return Start::Failed;
    }
    thread_ = std::thread(&SocketServer::run, this);
    return Start::Running;
  }

 private:
  void run() {
    while (!stop_.wait(0)) {
      const Descriptor peer = accept_peer(listener_.get(), NO_DEADLINE, &stop_);
      if (peer.get() >= 0)
        serve(peer.get());
      else
        stop_.wait(100);  // out of descriptors, say: not to be asked about without a pause
    }
  }

  void serve(int peer) {
    if (!is_this_user(peer)) {
      hlog("command channel: refused another user");
      return;
    }
    answer(SocketLink(peer, lund_now_us() + PEER_US, &stop_), handler_);
  }

  const Handler handler_;
  LockFile lock_;
  UnixAddress address_;
  Descriptor listener_;
  WakeEvent stop_{WakeEvent::Reset::Manual};
  std::thread thread_;
};

}  // namespace

std::unique_ptr<Server> command_exchange::make_server(CommandServer::Handler handler) {
  return std::make_unique<SocketServer>(std::move(handler));
}

CommandResult command_exchange::ask_host(const std::filesystem::path& directory,
                                         const std::string& request, std::string* answer,
                                         std::string* error) {
  const auto fail = [error](const std::string& text) {
    *error = text;
    return CommandResult::Failed;
  };
  UnixAddress address;
  if (!address.fill(directory / SOCKET)) return CommandResult::NotRunning;
  const Descriptor peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (peer.get() < 0) return fail("no socket (" + system_error() + ")");
  // A full queue makes `connect` wait, as long as sending may.
  timeval limit{};
  limit.tv_sec = SENDER_US / 1'000'000;
  setsockopt(peer.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  const std::uint64_t deadline_us = lund_now_us() + SENDER_US;
  if (connect(peer.get(), address.get(), address.size()) != 0) {
    if (errno == ENOENT || errno == ENOTDIR || errno == ECONNREFUSED)
      return CommandResult::NotRunning;
    return fail(unreachable(system_error()));
  }
  fcntl(peer.get(), F_SETFL, O_NONBLOCK);
  return ask(SocketLink(peer.get(), deadline_us, nullptr), request, answer, error);
}
