#include "apps/client/input_sender.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "connection/clock.h"

namespace {

// Mice report up to 8,000 times a second; the host's screen shows no more than this can tell.
constexpr std::uint64_t MOTION_SPACING_US = 2'000;
// Motion waits, and adds up, while so many events are on their way: a batch stays small, and a key
// finds room in it.
constexpr std::size_t MOTION_IN_FLIGHT = 24;
// A mouse that moved so lately moves on, in a call from another thread than the one that sleeps
// until the next tick. What that call may not send yet goes out by a tick at its spacing.
constexpr std::uint64_t MOVING_US = 20'000;

// RFC 6298: smoothed round trip and four deviations. Its floor of a second is for a network's sake;
// here a batch is repeated in place of a user's wait, and the packets are small.
constexpr double RTT_UNKNOWN_US = 100'000;
constexpr double REPEAT_MIN_US = 10'000;
constexpr double REPEAT_MAX_US = 500'000;
constexpr int BACK_OFF_STEPS = 4;  // doublings

constexpr int POSITION_REPEATS = 3;
constexpr std::uint64_t POSITION_REPEAT_MIN_US = 20'000;

constexpr std::size_t EVENT_BYTES = 12;
constexpr std::size_t BATCH_HEADER_BYTES = 13;
constexpr std::size_t BATCH_BYTES_MAX = BATCH_HEADER_BYTES + EVENT_BYTES * LUND_INPUT_MAX;

std::int32_t saturated_sum(std::int32_t a, std::int32_t b) {
  using Limits = std::numeric_limits<std::int32_t>;
  return static_cast<std::int32_t>(
      std::clamp<std::int64_t>(std::int64_t{a} + b, Limits::min(), Limits::max()));
}

bool is_press_or_release(const lund_input_event& event) {
  return event.kind == LUND_INPUT_BUTTON || event.kind == LUND_INPUT_KEY;
}

}  // namespace

InputSender::InputSender(Send send) : send_(std::move(send)) {}

// ---- Events

bool InputSender::motion(std::int32_t dx, std::int32_t dy) {
  lund_input_event event;
  event.kind = LUND_INPUT_MOTION;
  event.dx = dx;
  event.dy = dy;
  return add(event);
}

bool InputSender::button(int button, bool down) {
  lund_input_event event;
  event.kind = LUND_INPUT_BUTTON;
  event.down = down;
  event.code = static_cast<std::uint16_t>(button);
  return add(event);
}

bool InputSender::wheel(std::int32_t across, std::int32_t down) {
  lund_input_event event;
  event.kind = LUND_INPUT_WHEEL;
  event.dx = across;
  event.dy = down;
  return add(event);
}

bool InputSender::key(std::uint16_t usage, bool down) {
  lund_input_event event;
  event.kind = LUND_INPUT_KEY;
  event.down = down;
  event.code = usage;
  return add(event);
}

bool InputSender::release_all() {
  lund_input_event event;
  event.kind = LUND_INPUT_RELEASE_ALL;
  return add(event);
}

bool InputSender::add(const lund_input_event& event) {
  std::scoped_lock lock(mutex_);
  const std::uint64_t now = lund_now_us();
  if (!push(event, now)) return false;
  flush(now);
  return true;
}

bool InputSender::push(const lund_input_event& event, std::uint64_t now) {
  const bool moves = event.kind == LUND_INPUT_MOTION;
  if (moves) {
    moved_us_ = now;
    wanted_.reset();
    wanted_waits_ = false;
    place_repeats_ = 0;
  }
  if (moves && count_ > sent_ && at(count_ - 1).event.kind == LUND_INPUT_MOTION) {
    lund_input_event& last = at(count_ - 1).event;
    last.dx = saturated_sum(last.dx, event.dx);
    last.dy = saturated_sum(last.dy, event.dy);
    return true;
  }
  if (!streaming_ || count_ == CAPACITY) {
    ++counts_.refused;
    release_owed_ = release_owed_ || (streaming_ && is_press_or_release(event));
    return false;
  }
  const bool clicks = event.kind == LUND_INPUT_BUTTON;
  at(count_++) = {event, now, clicks ? wanted_ : std::nullopt};
  if (clicks) last_click_seq_ = first_seq_ + static_cast<std::uint32_t>(count_) - 1;
  ++counts_.events;
  return true;
}

bool InputSender::position(std::uint16_t x, std::uint16_t y) {
  std::scoped_lock lock(mutex_);
  if (!streaming_) {
    ++counts_.refused;
    return false;
  }
  wanted_ = {x, y};
  wanted_waits_ = true;
  moved_us_ = lund_now_us();
  flush(moved_us_);
  return true;
}

// ---- Sending

void InputSender::flush(std::uint64_t now) {
  const std::size_t count = sendable();
  if (count > sent_ && worth_sending(count, now)) send_batch(count, now);
  // Behind the buttons that are on their way, not before them.
  if (wanted_waits_ && !click_in_flight() && now - place_sent_us_ >= MOTION_SPACING_US)
    move_to(*wanted_, now);
}

// How many of the unacknowledged may go out: as fit a batch, and no button from another place than
// the one before it while that one may still be lost.
std::size_t InputSender::sendable() {
  const std::size_t fit = std::min(count_, batch_max_);
  const Event* placed = nullptr;
  for (std::size_t i = 0; i < fit; ++i) {
    if (!at(i).place) continue;
    if (placed && placed->place != at(i).place) return std::max(i, sent_);
    placed = &at(i);
  }
  return fit;
}

bool InputSender::worth_sending(std::size_t count, std::uint64_t now) {
  for (std::size_t i = sent_; i < count; ++i)
    if (at(i).event.kind != LUND_INPUT_MOTION) return true;
  return sent_ < MOTION_IN_FLIGHT && now - last_batch_us_ >= MOTION_SPACING_US;
}

void InputSender::send_batch(std::size_t count, std::uint64_t now) {
  std::array<lund_input_event, LUND_INPUT_MAX> events;
  std::optional<Place> place;  // of the buttons that go out for the first time: one, by sendable
  bool turns_wheel = false;
  for (std::size_t i = 0; i < count; ++i) {
    events[i] = at(i).event;
    if (i < sent_) continue;
    if (at(i).place) place = at(i).place;
    turns_wheel = turns_wheel || events[i].kind == LUND_INPUT_WHEEL;
  }
  if (place && wanted_)
    place_pointer(*place, now);
  else if (turns_wheel && wanted_waits_ && !click_in_flight())
    move_to(*wanted_, now);
  else if (click_in_flight() && place_repeats_ > 0)
    send_position(now);

  std::array<std::uint8_t, BATCH_BYTES_MAX> packet;
  const lund_packet_header header;
  const lund_input_batch batch{first_seq_, static_cast<std::uint8_t>(count), events.data()};
  send_(packet.data(), lund_encode_input(packet.data(), packet.size(), &header, &batch));
  ++counts_.packets;
  counts_.repeated += count <= sent_;
  sent_ = std::max(sent_, count);
  last_batch_us_ = now;
}

// Where a button belongs goes out ahead of it: twice when the host hasn't been told lately, since
// either may be lost.
void InputSender::place_pointer(const Place& place, std::uint64_t now) {
  if (place_repeats_ == 0 || place != sent_place_) move_to(place, now);
  send_position(now);
}

// A new place gets a new number, its repeats keep it: the host takes it once.
void InputSender::move_to(const Place& place, std::uint64_t now) {
  if (place == wanted_) wanted_waits_ = false;
  sent_place_ = place;
  ++place_seq_;
  place_repeats_ = POSITION_REPEATS;
  ++counts_.positions;
  send_position(now);
}

void InputSender::send_position(std::uint64_t now) {
  std::array<std::uint8_t, 32> packet;
  const lund_packet_header header;
  send_(packet.data(), lund_encode_mouse_abs(packet.data(), packet.size(), &header, place_seq_,
                                             sent_place_.x, sent_place_.y));
  place_sent_us_ = now;
}

// ---- Time and answers

std::uint64_t InputSender::batch_repeat_us() const {
  const double answer_us = rtt_us_ == 0 ? RTT_UNKNOWN_US : rtt_us_ + 4 * rtt_deviation_us_;
  const double once_us = std::max(answer_us, REPEAT_MIN_US);
  return static_cast<std::uint64_t>(
      std::min(std::ldexp(once_us, std::min(batch_repeats_, BACK_OFF_STEPS)), REPEAT_MAX_US));
}

std::uint64_t InputSender::position_repeat_us() const {
  return POSITION_REPEAT_MIN_US << (POSITION_REPEATS - place_repeats_);
}

std::uint64_t InputSender::tick() {
  std::scoped_lock lock(mutex_);
  if (!streaming_) return NOTHING_DUE;
  const std::uint64_t now = lund_now_us();
  if (release_owed_ && count_ < CAPACITY) {
    lund_input_event event;
    event.kind = LUND_INPUT_RELEASE_ALL;
    release_owed_ = false;
    push(event, now);
  }
  flush(now);
  if (sent_ > 0 && now - last_batch_us_ >= batch_repeat_us()) {
    send_batch(sent_, now);
    ++batch_repeats_;
  }
  if (place_repeats_ > 0 && now - place_sent_us_ >= position_repeat_us()) {
    send_position(now);
    --place_repeats_;
  }
  return next_due_us(now);
}

std::uint64_t InputSender::next_due_us(std::uint64_t now) {
  std::uint64_t due = NOTHING_DUE;
  const auto at_time = [&](std::uint64_t time) {
    due = std::min(due, time > now ? time - now : 0);
  };
  if (sent_ > 0) at_time(last_batch_us_ + batch_repeat_us());
  if (sendable() > sent_ && sent_ < MOTION_IN_FLIGHT) at_time(last_batch_us_ + MOTION_SPACING_US);
  if (wanted_waits_ && !click_in_flight()) at_time(place_sent_us_ + MOTION_SPACING_US);
  if (place_repeats_ > 0) at_time(place_sent_us_ + position_repeat_us());
  if (now - moved_us_ < MOVING_US) at_time(now + MOTION_SPACING_US);
  return due;
}

void InputSender::acknowledged(const std::uint8_t* packet, std::size_t size) {
  std::uint32_t last = 0;
  if (lund_decode_u32_packet(packet, size, &last) != 0) return;
  std::scoped_lock lock(mutex_);
  // Only what has been sent: an older acknowledgement, or one of events never made, says nothing.
  if (!streaming_ || last < first_seq_ || last - first_seq_ >= sent_) return;
  const std::uint64_t now = lund_now_us();
  for (; first_seq_ <= last; ++first_seq_) {
    latency_us_[counts_.acknowledged++ % LATENCIES] = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(now - at(0).since_us, std::numeric_limits<std::uint32_t>::max()));
    head_ = (head_ + 1) % CAPACITY;
    --count_;
    --sent_;
  }
  batch_repeats_ = 0;
  flush(now);
}

void InputSender::rtt_measured(std::uint64_t us) {
  std::scoped_lock lock(mutex_);
  const auto sample = static_cast<double>(us);
  if (rtt_us_ == 0) {
    rtt_us_ = sample;
    rtt_deviation_us_ = sample / 2;
    return;
  }
  rtt_deviation_us_ += (std::abs(sample - rtt_us_) - rtt_deviation_us_) / 4;
  rtt_us_ += (sample - rtt_us_) / 8;
}

// ---- Streams

void InputSender::begin(std::size_t payload_bytes) {
  std::scoped_lock lock(mutex_);
  const std::size_t room = std::max(payload_bytes, BATCH_HEADER_BYTES) - BATCH_HEADER_BYTES;
  batch_max_ = std::clamp<std::size_t>(room / EVENT_BYTES, 1, LUND_INPUT_MAX);
  streaming_ = true;
}

void InputSender::end() {
  std::scoped_lock lock(mutex_);
  counts_.forgotten += count_;
  streaming_ = release_owed_ = wanted_waits_ = false;
  head_ = count_ = sent_ = 0;
  first_seq_ = 1;
  last_click_seq_ = place_seq_ = 0;
  last_batch_us_ = place_sent_us_ = moved_us_ = 0;
  batch_repeats_ = place_repeats_ = 0;
  wanted_.reset();
  rtt_us_ = rtt_deviation_us_ = 0;
}

InputSender::Statistics InputSender::statistics() const {
  std::scoped_lock lock(mutex_);
  Statistics statistics = counts_;
  const auto kept = std::min<std::uint64_t>(counts_.acknowledged, LATENCIES);
  statistics.latency_us.assign(latency_us_.begin(),
                               latency_us_.begin() + static_cast<std::ptrdiff_t>(kept));
  return statistics;
}

std::size_t InputSender::unacknowledged() const {
  std::scoped_lock lock(mutex_);
  return count_;
}

bool InputSender::idle() const {
  std::scoped_lock lock(mutex_);
  return count_ == 0 && !wanted_waits_ && place_repeats_ == 0;
}
