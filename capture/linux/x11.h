// XCB under RAII, and what displays and capture both ask of an X server. A connection is used by
// one thread.
#pragma once

#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace x11 {

struct Free {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using Reply = std::unique_ptr<T, Free>;

template <typename T>
Reply<T> own(T* reply) {
  return Reply<T>(reply);
}

// To the server that DISPLAY names.
class Connection {
 public:
  Connection();
  ~Connection() { xcb_disconnect(connection_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool ok() const { return xcb_connection_has_error(connection_) == 0; }
  xcb_connection_t* get() const { return connection_; }
  operator xcb_connection_t*() const { return connection_; }
  // Null if connecting failed; stays what it is when the server dies later.
  const xcb_screen_t* screen() const { return screen_; }
  bool has_extension(const char* name) const;
  // The number of an extension's first event; nothing without it, or when the server has died.
  std::optional<std::uint8_t> first_event(xcb_extension_t* extension) const;

 private:
  xcb_connection_t* connection_;
  const xcb_screen_t* screen_ = nullptr;
};

struct Monitor {
  std::string name;
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::int32_t width = 0;
  std::int32_t height = 0;
  bool primary = false;
  xcb_randr_output_t output = XCB_NONE;  // its first
};

// The active monitors of RandR 1.5, empty if the server has none or fails.
std::vector<Monitor> monitors(const Connection& connection);

// The server draws for a Wayland compositor, whose screens it can't see.
bool is_xwayland(const Connection& connection);

}  // namespace x11
