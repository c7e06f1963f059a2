#include "control/linux/unix_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "control/linux/deadline.h"

namespace {

// A system call on a non-blocking socket, repeated until it does something or may not wait longer.
template <class Call>
auto when_ready(int socket, short events, std::uint64_t deadline_us, const WakeEvent* stop,
                Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0) return result;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return result;
    if (!wait_ready(socket, events, deadline_us, stop)) {
      errno = EAGAIN;
      return result;
    }
  }
}

}  // namespace

bool UnixAddress::fill(const std::filesystem::path& path) {
  std::string name = path.string();
  if (name.size() >= sizeof name_.sun_path) {
    directory_ = Descriptor(open(path.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (directory_.get() < 0) return false;
    name = "/proc/self/fd/" + std::to_string(directory_.get()) + "/" + path.filename().string();
  }
  // An empty name is one of the kernel's own name space, which belongs to nobody.
  if (name.empty() || name.size() >= sizeof name_.sun_path) {
    errno = EINVAL;
    return false;
  }
  name_.sun_family = AF_UNIX;
  std::memcpy(name_.sun_path, name.c_str(), name.size() + 1);
  return true;
}

Descriptor unix_socket() {
  return Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

Descriptor listen_at(const UnixAddress& address, int backlog) {
  Descriptor listener = unix_socket();
  if (listener.get() < 0) return listener;
  unlink(address.path());
  // Between the two the file may be open to more than its owner; nobody gets through before
  // `listen`.
  if (bind(listener.get(), address.get(), address.size()) != 0 ||
      chmod(address.path(), S_IRUSR | S_IWUSR) != 0 || listen(listener.get(), backlog) != 0)
    return Descriptor();
  return listener;
}

bool wait_ready(int descriptor, short events, std::uint64_t deadline_us, const WakeEvent* stop) {
  for (;;) {
    pollfd polled[] = {{descriptor, events, 0},
                       {stop ? static_cast<int>(stop->native_handle()) : -1, POLLIN, 0}};
    const timespec left = time_left(deadline_us);
    const int count = ppoll(polled, 2, &left, nullptr);
    if (count < 0 && errno == EINTR) continue;
    return count > 0 && polled[1].revents == 0;
  }
}

std::size_t receive_some(int socket, void* bytes, std::size_t size, std::uint64_t deadline_us,
                         const WakeEvent* stop) {
  const ssize_t moved =
      when_ready(socket, POLLIN, deadline_us, stop, [&] { return recv(socket, bytes, size, 0); });
  return moved > 0 ? static_cast<std::size_t>(moved) : 0;
}

std::size_t send_some(int socket, const void* bytes, std::size_t size, std::uint64_t deadline_us,
                      const WakeEvent* stop) {
  const ssize_t moved = when_ready(socket, POLLOUT, deadline_us, stop,
                                   [&] { return send(socket, bytes, size, MSG_NOSIGNAL); });
  return moved > 0 ? static_cast<std::size_t>(moved) : 0;
}

Descriptor accept_peer(int listener, std::uint64_t deadline_us, const WakeEvent* stop) {
  return Descriptor(when_ready(listener, POLLIN, deadline_us, stop, [&] {
    return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  }));
}
