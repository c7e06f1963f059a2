// The host's end of the clipboard, held by the session of screen 0.
#pragma once

#include <cstdint>
#include <functional>

class HostClipboard {
 public:
  virtual ~HostClipboard() = default;
  using Send = std::function<bool(const std::uint8_t* bytes, std::uint64_t size)>;
  virtual void session_start(std::uint32_t session, int payload, Send send) = 0;
  virtual void session_end(std::uint32_t session) = 0;
  virtual void resize(std::uint32_t session, int payload) = 0;
  virtual void receive(const std::uint8_t* data, std::uint64_t size) = 0;
  // Whether the clipboard is shared with clients; a setting that outlives the host. From any
  // thread.
  virtual void set_enabled(bool enabled) = 0;
  virtual bool enabled() = 0;
};
