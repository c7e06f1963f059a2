// This computer's clipboard as the other end of the host's, for the length of the program. Whether
// it is shared is the user's choice at the window, and not stored. Any thread.
#pragma once

#include <memory>

#include "streams/clipboard_bridge.h"
#include "streams/host_clipboard.h"

class DesktopClipboard final : public HostClipboard {
 public:
  explicit DesktopClipboard(std::unique_ptr<ClipboardAccess> access = make_clipboard_access());

  // False where there is no clipboard; the session then goes on without.
  bool start() { return sync_.start(); }

  void session_start(std::uint32_t session, int payload, Send send) override;
  void session_end(std::uint32_t session) override;
  void resize(std::uint32_t session, int payload) override;
  void receive(const std::uint8_t* data, std::uint64_t size) override;
  void set_enabled(bool enabled) override { sync_.set_enabled(enabled); }
  bool enabled() override { return sync_.enabled(); }

 private:
  ClipboardSync sync_;
};
