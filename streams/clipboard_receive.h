// The clipboard engine's receiving half: puts one item together from its chunks, answers the last
// chunk of every pass with what is missing, and hands the whole over.
//
// It owns the receive lock, and takes the send lock within it to learn when something was offered
// last. Any thread may call. `send` and `log` are called with the lock held, `on_data` without.
// Allocates with an item's first packet only.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>

#include "connection/protocol.h"
#include "streams/clipboard_internal.h"
#include "streams/clipboard_map.h"
#include "streams/clipboard_send.h"

class ClipboardReceiver {
 public:
  ClipboardReceiver(const lund_clip_config& config, ClipboardSender& sender)
      : config_(config), sender_(sender) {}

  void set_session(std::uint32_t session, std::uint64_t mtu);
  // `size` bytes of the item, as the codec has tested them: within the item's total.
  void receive(std::uint32_t session, const lund_clipboard_chunk& chunk, const std::uint8_t* bytes,
               std::uint32_t size);

 private:
  // The last item that ended here, so that its answer can be repeated.
  struct Done {
    std::uint32_t id;
    ClipStatus status;
  };

  // All with the lock held.
  bool receiving() const { return buffer_ != nullptr; }
  bool begin(const lund_clipboard_chunk& chunk);
  void end(std::uint32_t id, ClipStatus status);  // frees what is left of the item, and answers
  void send_ack(std::uint32_t id, ClipStatus status);

  const lund_clip_config config_;
  ClipboardSender& sender_;

  std::mutex lock_;
  std::uint32_t session_ = 0;
  std::uint64_t mtu_ = 0;

  std::uint32_t id_ = 0;  // of the item being received, if there is one, as all that follow
  std::uint8_t kind_ = 0;
  std::uint32_t total_ = 0;
  std::uint32_t got_ = 0;  // distinct bytes
  ClipBytes buffer_;
  ClipboardMap bitmap_;
  std::uint64_t started_us_ = 0;

  std::optional<Done> done_;
};
