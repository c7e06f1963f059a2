// What the doctor reads of Linux, from text that the system gives. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What to do when no display can be captured, by what the session's variables hold; empty ones are
// as good as none.
struct SessionVariables {
  std::string display;          // DISPLAY
  std::string wayland_display;  // WAYLAND_DISPLAY
  std::string session_type;     // XDG_SESSION_TYPE
};
std::string display_advice_for(const SessionVariables& variables);

// /proc/net/udp and udp6: the sockets that are bound to the port.
struct BoundSocket {
  std::uint64_t inode = 0;
  std::uint32_t user = 0;
  bool operator==(const BoundSocket&) const = default;
};
std::vector<BoundSocket> sockets_on_port(const std::string& table, std::uint16_t port);
