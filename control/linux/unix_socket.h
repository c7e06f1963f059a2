// Unix stream sockets at paths of any length: naming, serving, and single steps of a transfer that
// wait no longer than their caller lets them. All sockets are non-blocking. Any thread; a socket
// may be read by one and written by another.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>

#include "control/linux/descriptor.h"
#include "control/wake_event.h"

// sun_path holds 107 characters. A longer path is reached through the descriptor of its directory.
class UnixAddress {
 public:
  bool fill(const std::filesystem::path& path);  // false: errno says why
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name_); }
  socklen_t size() const { return sizeof name_; }
  const char* path() const { return name_.sun_path; }  // good while this lives

 private:
  Descriptor directory_;
  sockaddr_un name_{};
};

Descriptor unix_socket();

// A socket that listens at the address, in a file for its owner alone, in the place of whatever had
// the name. Empty on failure.
Descriptor listen_at(const UnixAddress& address, int backlog);

// Until the descriptor can do what `events` (POLLIN, POLLOUT) ask for or its other end is gone;
// false when the deadline passes or `stop`, which may be null, is set before.
bool wait_ready(int descriptor, short events, std::uint64_t deadline_us, const WakeEvent* stop);

// Moves from 1 to `size` bytes: at once if it can be done at once, otherwise when `wait_ready` says
// so. 0 when that says no or the peer has ended.
std::size_t receive_some(int socket, void* bytes, std::size_t size, std::uint64_t deadline_us,
                         const WakeEvent* stop);
std::size_t send_some(int socket, const void* bytes, std::size_t size, std::uint64_t deadline_us,
                      const WakeEvent* stop);

// The next peer of a listening socket, by the same rule. Empty otherwise; errno tells a time-out or
// stop (EAGAIN) from a failure.
Descriptor accept_peer(int listener, std::uint64_t deadline_us, const WakeEvent* stop);
