// What the user does, on its way to one screen of the host. Keys, buttons, wheel and relative
// motion are reliable: events carry numbers from 1 on, and every packet repeats what the host
// hasn't acknowledged, from the oldest on, so that the host plays each exactly once and in order.
// Motion is added up while it waits. The absolute position is not: it has numbers of its own, and
// the newest is repeated a few times because it may be lost.
//
// Any thread may call; one lock, held while `send` is called. No heap use after construction. Time
// is lund_now_us.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "connection/protocol.h"

class InputSender {
 public:
  // Seals and sends a plain packet.
  using Send = std::function<void(const std::uint8_t* plain, std::size_t size)>;
  explicit InputSender(Send send);
  InputSender(const InputSender&) = delete;
  InputSender& operator=(const InputSender&) = delete;

  // Events. False when one wasn't taken: nothing is connected, or the host hasn't acknowledged
  // anything for CAPACITY events. What was pressed is then released as soon as there is room.
  bool motion(std::int32_t dx, std::int32_t dy);       // pixels of the stream
  bool position(std::uint16_t x, std::uint16_t y);     // 0 to 65535 across the picture
  bool button(int button, bool down);                  // 1 left, 2 right, 3 middle, 4, 5
  bool wheel(std::int32_t across, std::int32_t down);  // 120 a notch
  bool key(std::uint16_t usage, bool down);            // USB HID usage, page 7
  bool release_all();                                  // every key and button that is down

  // The network thread. A stream has begun, with nothing pressed at the host and numbers from 1 on;
  // has ended, and what wasn't acknowledged is forgotten, for nobody knows what was played.
  void begin(std::size_t payload_bytes);
  void end();
  void acknowledged(const std::uint8_t* packet, std::size_t size);
  void rtt_measured(std::uint64_t us);
  // Sends what is due; gives the microseconds until something is again.
  std::uint64_t tick();
  static constexpr std::uint64_t NOTHING_DUE = UINT64_MAX;

  struct Statistics {
    std::uint64_t events = 0;        // numbered ones
    std::uint64_t acknowledged = 0;  // of these
    std::uint64_t forgotten = 0;     // by `end`
    std::uint64_t refused = 0;
    std::uint64_t positions = 0;
    std::uint64_t packets = 0;       // with events
    std::uint64_t repeated = 0;      // of these, those that only repeat
    std::vector<double> latency_us;  // from the event to its acknowledgement, of the last ones
  };
  Statistics statistics() const;
  std::size_t unacknowledged() const;  // events
  bool idle() const;  // everything has been acknowledged, the last position repeated

  static constexpr std::size_t CAPACITY = 1024;

 private:
  struct Place {
    std::uint16_t x = 0, y = 0;
    bool operator==(const Place&) const = default;
  };
  struct Event {
    lund_input_event event;
    std::uint64_t since_us = 0;
    std::optional<Place> place;  // where the pointer was, for a button
  };
  static constexpr std::size_t LATENCIES = 4096;

  Event& at(std::size_t i) { return ring_[(head_ + i) % CAPACITY]; }
  bool add(const lund_input_event& event);
  bool push(const lund_input_event& event, std::uint64_t now);
  bool click_in_flight() const { return last_click_seq_ >= first_seq_; }
  std::size_t sendable();
  bool worth_sending(std::size_t count, std::uint64_t now);
  void flush(std::uint64_t now);
  void send_batch(std::size_t count, std::uint64_t now);
  void place_pointer(const Place& place, std::uint64_t now);
  void move_to(const Place& place, std::uint64_t now);
  void send_position(std::uint64_t now);
  std::uint64_t batch_repeat_us() const;
  std::uint64_t position_repeat_us() const;
  std::uint64_t next_due_us(std::uint64_t now);

  const Send send_;
  mutable std::mutex mutex_;  // guards all below
  bool streaming_ = false;
  std::size_t batch_max_ = LUND_INPUT_MAX;
  std::array<Event, CAPACITY> ring_;  // what isn't acknowledged
  std::size_t head_ = 0, count_ = 0;
  std::size_t sent_ = 0;              // of these, from the oldest on, at least once
  std::uint32_t first_seq_ = 1;       // the oldest's number
  std::uint32_t last_click_seq_ = 0;  // the newest button's; 0: none
  bool release_owed_ = false;         // a press or release had no room
  std::uint64_t last_batch_us_ = 0;
  int batch_repeats_ = 0;  // in a row, without an acknowledgement

  std::optional<Place> wanted_;  // the pointer's place; none once it has moved relatively
  bool wanted_waits_ = false;    // to be sent
  Place sent_place_;
  std::uint32_t place_seq_ = 0;  // its number
  int place_repeats_ = 0;        // still to come
  std::uint64_t place_sent_us_ = 0;
  std::uint64_t moved_us_ = 0;  // the last call that moved the pointer

  double rtt_us_ = 0, rtt_deviation_us_ = 0;
  Statistics counts_;  // without the latencies
  std::array<std::uint32_t, LATENCIES> latency_us_{};
};
