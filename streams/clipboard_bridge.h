// Keeps a desktop's clipboard and the clipboard engine of a session in step: the host's desktop
// with its client, or the client's own with the host. What is copied here is offered as UTF-8 text
// with LF line ends or as PNG; what arrives is put onto the clipboard.
//
// It owns the engine, with its thread, and the listener thread, which lives from start to stop and
// alone uses the clipboard. Any thread may call; start and stop on one at a time, and stop not
// beside other calls. One mutex guards `send`, and is held around it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "streams/clipboard_access.h"
#include "streams/clipboard_log.h"

class ClipboardSync {
 public:
  // Takes a finished packet to the other end; false when it can't, which the engine repairs.
  using Send = std::function<bool(const std::uint8_t* packet, std::uint64_t length)>;

  ClipboardSync(std::unique_ptr<ClipboardAccess> access, ClipboardLog log, bool enabled);
  ~ClipboardSync();  // stops
  ClipboardSync(const ClipboardSync&) = delete;
  ClipboardSync& operator=(const ClipboardSync&) = delete;

  // True at once when it runs. Takes up to 5 s. False without a clipboard, thread or engine; the
  // engine may run all the same, so that the other end gets its answers.
  bool start();
  // The engine ends, then the listener; one that hasn't ended after 5 s is left to itself.
  void stop();

  void set_enabled(bool enabled);
  bool enabled() const;

  // After start. `payload`: the largest packet that the session's path carries, bytes.
  void session_up(std::uint32_t session, std::uint64_t payload, Send send);
  // Another payload, which drops what is in flight. Nothing for another session than the present
  // one.
  void resize(std::uint32_t session, std::uint64_t payload);
  // Nothing for another session than the present one; 0 means whichever it is.
  void session_down(std::uint32_t session);
  void receive(const std::uint8_t* packet, std::uint64_t length);

 private:
  struct Core;
  // Shared with the listener thread, which may outlive this.
  std::shared_ptr<Core> core_;
};
