// The host's clipboard: a ClipboardSync that is made for the first session and then lives on, and
// the user's choice whether there is any, in the file clipboard_sync of the store. Any thread; one
// mutex, released before anything is called.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "streams/clipboard_bridge.h"
#include "streams/host_clipboard.h"

class HostClipboardSync final : public HostClipboard {
 public:
  using MakeAccess = std::function<std::unique_ptr<ClipboardAccess>()>;
  explicit HostClipboardSync(MakeAccess make_access = make_clipboard_access);

  void session_start(std::uint32_t session, int payload, Send send) override;
  void session_end(std::uint32_t session) override;
  void resize(std::uint32_t session, int payload) override;
  void receive(const std::uint8_t* data, std::uint64_t size) override;
  void set_enabled(bool enabled) override;
  bool enabled() override;

 private:
  using Sync = std::shared_ptr<ClipboardSync>;

  Sync sync() const;
  Sync begin(bool* first);

  const MakeAccess make_access_;
  mutable std::mutex mutex_;
  bool begun_ = false;  // tried once
  Sync sync_;           // none before, and none when it couldn't be made
};
