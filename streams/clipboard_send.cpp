#include "streams/clipboard_send.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <span>
#include <utility>

#include "connection/clock.h"

namespace {

constexpr std::uint32_t PACKET_MIN = 37;
constexpr std::uint32_t CHUNK_HEADER = 21;

constexpr std::uint32_t DEFAULT_RATE = 5'000'000;  // bytes a second
// Above one packet: what a timer that wakes a few milliseconds late may catch up with.
constexpr double BURST_BYTES = 16'384;

constexpr std::uint64_t PROBE_PERIOD_US = 100'000;
constexpr std::uint64_t SILENCE_LIMIT_US = 5'000'000;
constexpr std::uint64_t TOTAL_LIMIT_US = 120'000'000;

std::uint32_t whole_ms(std::uint64_t us) {
  return static_cast<std::uint32_t>((us + 999) / 1000);
}

}  // namespace

ClipboardSender::ClipboardSender(const lund_clip_config& config)
    : config_(config), rate_(config.rate != 0 ? config.rate : DEFAULT_RATE) {}

std::uint32_t ClipboardSender::packet_bytes() const {
  return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(mtu_, PACKET_MIN, CLIP_PACKET_MAX));
}

std::uint32_t ClipboardSender::chunk_bytes() const {
  return packet_bytes() - CHUNK_HEADER;
}

lund_clipboard_range ClipboardSender::tail() const {
  const std::uint32_t chunk = chunk_bytes();
  const std::uint32_t offset = (size_ - 1) / chunk * chunk;
  return {.offset = offset, .length = size_ - offset};
}

void ClipboardSender::set_session(std::uint32_t session, std::uint64_t mtu) {
  ClipBytes dropped;  // freed once the lock is let go
  const std::scoped_lock held(lock_);
  if (session == session_ && mtu == mtu_) return;
  if (active()) {
    clip_log(config_, "clipboard: #%u dropped (session %s)", id_,
             session != 0 ? "changed" : "ended");
    dropped = std::move(data_);
  }
  session_ = session;
  mtu_ = mtu;
  wake_.notify_one();
}

std::uint32_t ClipboardSender::offer(std::uint8_t kind, const void* data, std::uint64_t size) {
  const std::uint32_t limit = clip_kind_limit(kind);
  if (size > limit) {
    clip_log(config_, "clipboard: not sending %s of %" PRIu64 " B (limit %u B)",
             clip_kind_name(kind), size, limit);
    return 0;
  }
  ClipBytes item = clip_allocate(size);
  if (!item) {
    clip_log(config_, "clipboard: not sending %s of %" PRIu64 " B: out of memory",
             clip_kind_name(kind), size);
    return 0;
  }
  std::memcpy(item.get(), data, size);

  ClipBytes superseded;  // freed once the lock is let go
  const std::scoped_lock held(lock_);
  if (session_ == 0) return 0;
  if (active()) {
    clip_log(config_, "clipboard: #%u superseded before it was acknowledged", id_);
    superseded = std::move(data_);
  }
  if (++next_id_ == 0) next_id_ = 1;
  id_ = next_id_;
  kind_ = kind;
  data_ = std::move(item);
  size_ = static_cast<std::uint32_t>(size);
  started_us_ = last_heard_us_ = last_offer_us_ = lund_now_us();
  pass_ = 1;
  ranges_[0] = {.offset = 0, .length = size_};
  range_count_ = 1;
  start_pass();
  clip_log(config_, "clipboard: sending #%u %s, %" PRIu64 " B", id_, clip_kind_name(kind), size);
  return id_;
}

void ClipboardSender::start_pass() {
  range_cursor_ = 0;
  cursor_offset_ = 0;
  waiting_ = false;
  wake_.notify_one();
}

void ClipboardSender::end_pass(std::uint64_t now) {
  waiting_ = true;
  last_heard_us_ = now;
  next_probe_us_ = now + PROBE_PERIOD_US;
}

void ClipboardSender::receive_ack(std::uint32_t session, const lund_clipboard_ack& ack) {
  ClipBytes dropped;  // freed once the lock is let go
  const std::scoped_lock held(lock_);
  if (!active() || session != session_ || ack.id != id_) return;
  const std::uint64_t now = lund_now_us();
  switch (ack.status) {
    case CLIP_COMPLETE:
      clip_log(config_, "clipboard: #%u %s, %u B delivered in %.0f ms (%d pass%s)", id_,
               clip_kind_name(kind_), size_, static_cast<double>(now - started_us_) / 1000, pass_,
               pass_ == 1 ? "" : "es");
      dropped = std::move(data_);
      return;
    case CLIP_MISSING:
      break;
    default:
      clip_log(config_, "clipboard: #%u %s, %u B rejected by the peer", id_, clip_kind_name(kind_),
               size_);
      dropped = std::move(data_);
      return;
  }

  if (!waiting_) return;  // of an earlier pass: what it lists may be on its way
  take_ranges(ack);
  last_heard_us_ = now;
  ++pass_;
  start_pass();
}

void ClipboardSender::take_ranges(const lund_clipboard_ack& ack) {
  range_count_ = 0;
  for (const lund_clipboard_range& missing : std::span(ack.ranges, ack.range_count)) {
    if (missing.offset >= size_ || missing.length == 0) continue;
    ranges_[range_count_++] = {.offset = missing.offset,
                               .length = std::min(missing.length, size_ - missing.offset)};
  }
  const bool answered =
      range_count_ > 0 &&
      ranges_[range_count_ - 1].offset + ranges_[range_count_ - 1].length == size_;
  if (!answered) ranges_[range_count_++] = tail();
}

std::uint64_t ClipboardSender::last_offer_us() {
  const std::scoped_lock held(lock_);
  return last_offer_us_;
}

void ClipboardSender::set_last_id(std::uint32_t id) {
  const std::scoped_lock held(lock_);
  next_id_ = id;
}

ClipboardSender::Wait ClipboardSender::step() {
  Lock held(lock_);
  return cycle(held);
}

void ClipboardSender::run() {
  Lock held(lock_);
  while (!stop_) {
    const Wait wait = cycle(held);
    if (!wait)
      wake_.wait(held);
    else if (*wait > 0)
      wake_.wait_for(held, std::chrono::milliseconds(*wait));
  }
}

void ClipboardSender::stop() {
  const std::scoped_lock held(lock_);
  stop_ = true;
  wake_.notify_one();
}

ClipboardSender::Wait ClipboardSender::cycle(Lock& held) {
  if (!active()) return {};
  const std::uint64_t now = lund_now_us();
  if (now - started_us_ > TOTAL_LIMIT_US) {
    clip_log(config_, "clipboard: #%u %s, %u B: gave up after %d passes in 2 min", id_,
             clip_kind_name(kind_), size_, pass_);
    return drop(held);
  }
  return waiting_ ? await_answer(held, now) : pace(held, now);
}

ClipboardSender::Wait ClipboardSender::await_answer(Lock& held, std::uint64_t now) {
  if (now - last_heard_us_ >= SILENCE_LIMIT_US) {
    clip_log(config_, "clipboard: #%u %s, %u B: no answer for %u s, gave up", id_,
             clip_kind_name(kind_), size_, static_cast<unsigned>(SILENCE_LIMIT_US / 1'000'000));
    return drop(held);
  }
  if (now < next_probe_us_) return whole_ms(next_probe_us_ - now);
  next_probe_us_ = now + PROBE_PERIOD_US;
  return send(held, encode(tail()));
}

ClipboardSender::Wait ClipboardSender::pace(Lock& held, std::uint64_t now) {
  const double packet = packet_bytes();
  tokens_ = std::min(tokens_ + static_cast<double>(now - refilled_us_) * rate_ / 1e6,
                     BURST_BYTES + packet);
  refilled_us_ = now;
  if (tokens_ < packet) {
    const auto short_us = static_cast<std::uint64_t>((packet - tokens_) * 1e6 / rate_) + 1;
    return whole_ms(short_us);
  }

  assert(range_cursor_ < range_count_ && cursor_offset_ < ranges_[range_cursor_].length);
  const lund_clipboard_range& range = ranges_[range_cursor_];
  const lund_clipboard_range chunk = {
      .offset = range.offset + cursor_offset_,
      .length = std::min(chunk_bytes(), range.length - cursor_offset_)};
  cursor_offset_ += chunk.length;
  if (cursor_offset_ == range.length) {
    cursor_offset_ = 0;
    if (++range_cursor_ == range_count_) end_pass(now);
  }
  const std::size_t length = encode(chunk);
  tokens_ -= static_cast<double>(length);
  return send(held, length);
}

std::size_t ClipboardSender::encode(const lund_clipboard_range& range) {
  const lund_packet_header header{.session_id = session_};
  const lund_clipboard_chunk chunk{
      .id = id_, .kind = kind_, .total = size_, .offset = range.offset};
  return lund_encode_clipboard(packet_.data(), packet_.size(), &header, &chunk,
                               data_.get() + range.offset, range.length);
}

ClipboardSender::Wait ClipboardSender::send(Lock& held, std::size_t length) {
  held.unlock();
  if (length != 0) config_.send(config_.user, packet_.data(), length);
  held.lock();
  return 0;
}

ClipboardSender::Wait ClipboardSender::drop(Lock& held) {
  ClipBytes dropped = std::move(data_);
  held.unlock();
  dropped.reset();
  held.lock();
  return 0;
}
