// The clipboard engine's sending half: one item, paced out in passes until the peer has it all, and
// the time limits after which it is given up.
//
// It owns the send lock. Any thread may call; only one at a time may step() or run(), and it alone
// calls `send`, with the lock let go. `log` is called with the lock held.
#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>

#include "connection/protocol.h"
#include "streams/clipboard_internal.h"

class ClipboardSender {
 public:
  explicit ClipboardSender(const lund_clip_config& config);

  void set_session(std::uint32_t session, std::uint64_t mtu);
  std::uint32_t offer(std::uint8_t kind, const void* data, std::uint64_t size);
  void receive_ack(std::uint32_t session, const lund_clipboard_ack& ack);
  std::uint64_t last_offer_us();
  void set_last_id(std::uint32_t id);

  // Milliseconds to the next step; 0: at once; nothing: when one of the calls above makes one due.
  std::optional<std::uint32_t> step();
  void run();   // steps until stop()
  void stop();  // wakes run()

 private:
  using Lock = std::unique_lock<std::mutex>;
  using Wait = std::optional<std::uint32_t>;

  // All with the lock held. Those that take it let it go to send and to free, and then return 0: a
  // wake-up in between is never slept over.
  Wait cycle(Lock& held);
  Wait await_answer(Lock& held, std::uint64_t now);
  Wait pace(Lock& held, std::uint64_t now);
  Wait send(Lock& held, std::size_t length);  // what encode() made
  Wait drop(Lock& held);

  bool active() const { return data_ != nullptr; }
  std::uint32_t packet_bytes() const;  // the largest packet
  std::uint32_t chunk_bytes() const;   // of the item in it
  lund_clipboard_range tail() const;   // the item's last chunk, whose arrival makes the peer answer
  void start_pass();
  void end_pass(std::uint64_t now);
  void take_ranges(const lund_clipboard_ack& ack);
  std::size_t encode(const lund_clipboard_range& range);  // into packet_

  const lund_clip_config config_;
  const double rate_;  // bytes a second

  std::mutex lock_;
  std::condition_variable wake_;
  bool stop_ = false;

  std::uint32_t session_ = 0;
  std::uint64_t mtu_ = 0;
  std::uint32_t next_id_ = 0;  // the last one handed out

  std::uint32_t id_ = 0;  // of the item, if there is one, as all that follow
  std::uint8_t kind_ = 0;
  ClipBytes data_;
  std::uint32_t size_ = 0;
  bool waiting_ = false;  // for the peer's answer; otherwise a pass is being paced out
  int pass_ = 0;
  // What the pass sends: what the peer listed, and the tail.
  std::array<lund_clipboard_range, LUND_RANGES_MAX + 1> ranges_{};
  std::size_t range_count_ = 0;
  std::size_t range_cursor_ = 0;     // a range of which something is still to be sent
  std::uint32_t cursor_offset_ = 0;  // within it
  std::uint64_t started_us_ = 0;     // the offer
  std::uint64_t last_heard_us_ = 0;  // the pass's end; before that, the answer that started it
  std::uint64_t next_probe_us_ = 0;

  std::uint64_t last_offer_us_ = 0;
  double tokens_ = 0;  // bytes that may be sent now
  std::uint64_t refilled_us_ = 0;

  std::array<std::uint8_t, CLIP_PACKET_MAX> packet_{};  // the stepping thread's alone
};
