#include "apps/service/linux/manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "apps/service/platform.h"
#include "control/linux/descriptor.h"

namespace service_platform {

bool notify_manager(const std::string& message) {
  const char* const name = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  if (name == nullptr || std::strlen(name) < 2 || std::strlen(name) >= sizeof address.sun_path)
    return false;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name, std::strlen(name));
  if (name[0] == '@') address.sun_path[0] = '\0';  // the abstract namespace, unix(7)
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name));
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return socket.get() >= 0 &&
         sendto(socket.get(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                reinterpret_cast<const sockaddr*>(&address),
                size) == static_cast<ssize_t>(message.size());
}

void tell_manager_ready() {
  notify_manager("READY=1");
}
void tell_manager_stopping() {
  notify_manager("STOPPING=1");
}
void tell_manager_status(const std::string& line) {
  notify_manager("STATUS=" + line);
}
// The journal has what is printed.
void tell_manager_line(const std::string&, Line) {}

}  // namespace service_platform
