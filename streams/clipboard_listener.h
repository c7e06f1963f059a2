// What the clipboard's listener does: reads what has been copied here and offers it, and puts onto
// the clipboard what has come in. A step function without a thread, so that its retries can be told
// in virtual time.
//
// `step` and what it leads to run on one thread, which alone uses the clipboard. Any thread may
// post items and change the state, which one mutex guards; it is not held around anything that
// takes time, and not around `offer`.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "control/wake_event.h"
#include "streams/clipboard.h"
#include "streams/clipboard_access.h"
#include "streams/png_fit.h"

struct IncomingItem {
  struct Free {
    void operator()(std::uint8_t* memory) const { lund_clip_free(memory); }
  };
  std::uint32_t id = 0;
  std::uint8_t kind = 0;
  std::unique_ptr<std::uint8_t[], Free> data;
  std::uint64_t size = 0;

  std::span<const std::uint8_t> bytes() const { return {data.get(), size}; }
};

class ClipboardListener {
 public:
  using Offer = std::function<void(std::uint8_t kind, std::span<const std::uint8_t> bytes)>;

  ClipboardListener(ClipboardAccess& access, bool enabled, ClipboardLog log, Offer offer);

  // ---- Any thread
  void set_enabled(bool enabled);
  bool enabled() const;
  void set_session(std::uint32_t session);  // 0: none
  std::uint32_t session() const;
  void post(IncomingItem item);     // the caller wakes the access
  void stop() { stopping_.set(); }  // nothing is retried from now on

  // ---- The listener thread
  // Waits for what comes next, a retry included, and deals with it.
  void step();

 private:
  struct State {
    std::uint32_t session = 0;
    std::uint64_t last_hash = 0;  // of the last item seen either way
    bool enabled = true;
    std::deque<IncomingItem> incoming;
  };
  enum class Seen { New, Before, SyncOff };

  std::uint32_t wait_ms() const;
  bool wants_changes() const;
  void clipboard_changed();
  void read_and_send();
  void count_open_failure();
  void send_what_is_open();
  std::optional<ClipboardBlock> read_and_close(ClipboardForm form, std::uint64_t most_bytes);
  void send_text();
  void send_png();
  void send_dib();
  void offer(std::uint8_t kind, std::span<const std::uint8_t> bytes);
  void apply_incoming();
  void apply(const IncomingItem& item);
  Seen note(const IncomingItem& item);
  std::shared_ptr<const ClipboardContent> prepare(const IncomingItem& item) const;
  void put(std::uint32_t id, const std::shared_ptr<const ClipboardContent>& content);

  ClipboardAccess& access_;
  const ClipboardLog log_;
  const Offer offer_;
  WakeEvent stopping_{WakeEvent::Reset::Manual};

  mutable std::mutex mutex_;
  State state_;

  // The listener thread's alone.
  std::uint32_t own_sequence_ = 0;  // of this program's last write
  int open_failures_ = 0;           // for the present change
  std::uint64_t retry_at_us_ = 0;   // 0: none is due
};
