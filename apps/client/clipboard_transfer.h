// A clipboard without a desktop: gives the host one item, and keeps the last that comes from it.
// Told of sessions and packets as a computer's own clipboard is; over a new session, what wasn't
// delivered is offered again.
//
// The engine's thread sends; everything else is the network thread's.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "apps/client/clipboard_item.h"
#include "streams/host_clipboard.h"

class ClipboardTransfer : public HostClipboard {
 public:
  enum class Delivery {
    Nothing,  // to deliver
    Pending,
    Delivered,
    Rejected,
    GivenUp,  // the host doesn't answer, as one that doesn't share its clipboard
  };

  explicit ClipboardTransfer(std::optional<ClipboardItem> to_send);
  ~ClipboardTransfer() override;
  bool start();  // false when there is no thread or memory to be had

  void session_start(std::uint32_t session, int payload, Send send) override;
  void session_end(std::uint32_t session) override;
  void resize(std::uint32_t session, int payload) override;
  void receive(const std::uint8_t* data, std::uint64_t size) override;
  void set_enabled(bool) override {}
  bool enabled() override { return true; }

  Delivery delivery(std::uint64_t now_us) const;
  const std::optional<ClipboardItem>& received() const { return received_; }  // the last
  int items_received() const { return items_received_; }

 private:
  static void on_send(void* user, const std::uint8_t* packet, std::uint64_t length);
  static void on_data(void* user, std::uint32_t id, std::uint8_t kind, std::uint8_t* data,
                      std::uint64_t size);
  void offer();

  struct ClipDeleter {
    void operator()(lund_clip* clip) const { lund_clip_destroy(clip); }
  };
  const std::optional<ClipboardItem> to_send_;
  std::optional<ClipboardItem> received_;
  int items_received_ = 0;
  std::uint32_t session_ = 0;
  std::uint32_t offered_ = 0;           // its id; 0: not in this session
  std::optional<std::uint8_t> answer_;  // the last word on it
  std::uint64_t heard_us_ = 0;          // of the offer, or of an answer to it

  std::mutex send_mutex_;  // guards send_; held through a call of it
  Send send_;
  std::unique_ptr<lund_clip, ClipDeleter> clip_;  // first to go: its thread uses the rest
};
