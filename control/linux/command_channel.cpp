#include "control/command_channel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <thread>

#include "connection/clock.h"
#include "control/linux/deadline.h"
#include "control/linux/descriptor.h"
#include "control/log.h"
#include "control/store_platform.h"
#include "control/wake_event.h"

namespace {

constexpr std::uint64_t PEER_US = 5'000'000;
constexpr std::uint64_t SENDER_US = 2 * PEER_US;
constexpr std::size_t ANSWER_MAX = 1'048'576;  // bytes; what a sender takes from a host gone wrong
constexpr char SOCKET[] = "control.sock";
constexpr char LOCK[] = "control.lock";
constexpr int BACKLOG = 8;

std::string system_error() {
  return std::strerror(errno);
}

// sun_path holds 107 characters. A longer path is reached through the descriptor of its directory.
struct Address {
  Descriptor directory;
  sockaddr_un name{};

  bool fill(const std::filesystem::path& in) {
    std::string path = (in / SOCKET).string();
    if (path.size() >= sizeof name.sun_path) {
      directory = Descriptor(open(in.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
      if (directory.get() < 0) return false;
      path = "/proc/self/fd/" + std::to_string(directory.get()) + "/" + SOCKET;
    }
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, path.c_str(), path.size() + 1);
    return true;
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name); }
};

// One way of an exchange on a non-blocking socket: waits until it can go on, it is too late, or the
// event, which may be null, is set.
struct Exchange {
  int socket;
  std::uint64_t deadline_us;
  const WakeEvent* stop;

  bool ready(short events) const {
    for (;;) {
      pollfd polled[] = {{socket, events, 0},
                         {stop ? static_cast<int>(stop->native_handle()) : -1, POLLIN, 0}};
      const timespec left = time_left(deadline_us);
      const int count = ppoll(polled, 2, &left, nullptr);
      if (count < 0 && errno == EINTR) continue;
      return count > 0 && polled[1].revents == 0;
    }
  }

  // Up to the closing zero byte, which isn't part of the text. Nothing when it is longer than
  // `limit`, or the peer ended or was too slow before its end.
  std::optional<std::string> receive(std::size_t limit) const {
    std::string text;
    char bytes[4'096];
    while (ready(POLLIN)) {
      const ssize_t size = recv(socket, bytes, sizeof bytes, 0);
      if (size < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (size <= 0) break;
      const auto got = static_cast<std::size_t>(size);
      const void* zero = std::memchr(bytes, 0, got);
      text.append(bytes, strnlen(bytes, got));
      if (text.size() > limit) break;
      if (zero != nullptr) return text;
    }
    return std::nullopt;
  }

  bool send(const std::string& text) const {
    const std::size_t total = text.size() + 1;  // with the zero byte that ends it
    for (std::size_t done = 0; done < total;) {
      if (!ready(POLLOUT)) return false;
      const ssize_t size = ::send(socket, text.c_str() + done, total - done, MSG_NOSIGNAL);
      if (size < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (size <= 0) return false;
      done += static_cast<std::size_t>(size);
    }
    return true;
  }
};

bool is_this_user(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
         (peer.uid == geteuid() || peer.uid == 0);
}

class Server final : public CommandServer {
 public:
  explicit Server(Handler handler) : handler_(std::move(handler)) {}
  ~Server() override {
    stop_.set();
    if (thread_.joinable()) thread_.join();
    if (listener_.get() >= 0) unlink(address_.name.sun_path);
  }

  Start listen_in(const std::filesystem::path& directory, std::string* error) {
    // The lock, which ends with its process, tells a live host from the socket that a killed one
    // left, and two that start together apart.
    lock_ = Descriptor(open((directory / LOCK).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
                            S_IRUSR | S_IWUSR));
    const bool locked = lock_.get() >= 0 && flock(lock_.get(), LOCK_EX | LOCK_NB) == 0;
    if (!locked && lock_.get() >= 0 && errno == EWOULDBLOCK) {
      *error = "another host runs on the store in " + directory.string();
      return Start::AnotherHost;
    }
    if (!locked || !address_.fill(directory) || !bind_and_listen()) {
      *error = "no command channel in " + directory.string() + " (" + system_error() + ")";
      return Start::Failed;
    }
    thread_ = std::thread(&Server::run, this);
    return Start::Running;
  }

 private:
  bool bind_and_listen() {
    Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (listener.get() < 0) return false;
    unlink(address_.name.sun_path);
    // Between the two the file may be open to more than the user; nobody is answered before
    // `listen`, and by their name only peers of this user ever.
    if (bind(listener.get(), address_.get(), sizeof address_.name) != 0 ||
        chmod(address_.name.sun_path, S_IRUSR | S_IWUSR) != 0 ||
        listen(listener.get(), BACKLOG) != 0)
      return false;
    listener_ = std::move(listener);
    return true;
  }

  void run() {
    for (;;) {
      pollfd polled[] = {{listener_.get(), POLLIN, 0},
                         {static_cast<int>(stop_.native_handle()), POLLIN, 0}};
      if (ppoll(polled, 2, nullptr, nullptr) < 0 && errno == EINTR) continue;
      if (polled[1].revents != 0) return;
      const Descriptor peer(
          accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (peer.get() >= 0) {
        serve(peer.get());
      } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
        stop_.wait(100);  // the peer stays in the queue: not to be asked about without a pause
      }
    }
  }

  void serve(int peer) {
    if (!is_this_user(peer)) {
      hlog("command channel: refused another user");
      return;
    }
    const Exchange exchange{peer, lund_now_us() + PEER_US, &stop_};
    const std::optional<std::string> request = exchange.receive(COMMAND_REQUEST_MAX);
    if (request)
      exchange.send(handler_(*request));
    else
      hlog("command channel: a request that was incomplete, too slow or too long was dropped");
  }

  const Handler handler_;
  Address address_;
  Descriptor lock_;
  Descriptor listener_;
  WakeEvent stop_{WakeEvent::Reset::Manual};
  std::thread thread_;
};

}  // namespace

CommandServer::Start CommandServer::start(const std::filesystem::path& directory, Handler handler,
                                          std::unique_ptr<CommandServer>* server,
                                          std::string* error) {
  if (directory.empty() || !store_platform::make_directory(directory)) {
    *error = "no command channel: there is no store";
    return Start::Failed;
  }
  auto made = std::make_unique<Server>(std::move(handler));
  const Start result = made->listen_in(directory, error);
  if (result == Start::Running) *server = std::move(made);
  return result;
}

CommandResult send_command(const std::filesystem::path& directory, const std::string& request,
                           std::string* answer, std::string* error) {
  const auto fail = [error](const std::string& text) {
    *error = text;
    return CommandResult::Failed;
  };
  if (request.size() > COMMAND_REQUEST_MAX) return fail("the request is too long");
  Address address;
  if (directory.empty() || !address.fill(directory)) return CommandResult::NotRunning;
  const Descriptor peer(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (peer.get() < 0) return fail("no socket (" + system_error() + ")");
  // A full queue makes `connect` wait, as long as sending may.
  timeval limit{};
  limit.tv_sec = SENDER_US / 1'000'000;
  setsockopt(peer.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  const std::uint64_t deadline_us = lund_now_us() + SENDER_US;
  if (connect(peer.get(), address.get(), sizeof address.name) != 0) {
    if (errno == ENOENT || errno == ECONNREFUSED) return CommandResult::NotRunning;
    return fail("the running host can't be reached (" + system_error() + ")");
  }
  fcntl(peer.get(), F_SETFL, O_NONBLOCK);
  const Exchange exchange{peer.get(), deadline_us, nullptr};
  if (!exchange.send(request)) return fail("the running host takes no request");
  std::optional<std::string> received = exchange.receive(ANSWER_MAX);
  if (!received) return fail("the running host did not answer");
  *answer = std::move(*received);
  return CommandResult::Answered;
}
