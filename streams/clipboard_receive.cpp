#include "streams/clipboard_receive.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <utility>

#include "connection/clock.h"

namespace {

constexpr std::size_t ACK_HEADER = 14;
constexpr std::size_t RANGE_BYTES = 8;
// Larger ones don't decode.
static_assert(LUND_CLIP_IMAGE_MAX == LUND_CLIPBOARD_MAX);

constexpr std::size_t ACK_MAX = ACK_HEADER + RANGE_BYTES * LUND_RANGES_MAX;

std::size_t range_room(std::uint64_t mtu) {
  if (mtu <= ACK_HEADER) return 1;
  return std::clamp<std::uint64_t>((mtu - ACK_HEADER) / RANGE_BYTES, 1, LUND_RANGES_MAX);
}

}  // namespace

void ClipboardReceiver::set_session(std::uint32_t session, std::uint64_t mtu) {
  const std::scoped_lock held(lock_);
  if (session == session_ && mtu == mtu_) return;
  buffer_.reset();
  bitmap_.release();
  done_.reset();
  session_ = session;
  mtu_ = mtu;
}

void ClipboardReceiver::receive(std::uint32_t session, const lund_clipboard_chunk& chunk,
                                const std::uint8_t* bytes, std::uint32_t size) {
  std::unique_lock held(lock_);
  if (session_ == 0 || session != session_) return;
  const bool asks = chunk.offset + size == chunk.total;  // the end of a pass, or a probe
  if (done_ && chunk.id == done_->id) {
    if (asks) send_ack(done_->id, done_->status);
    return;
  }
  if (done_ && clip_older(chunk.id, done_->id)) return;
  if (receiving() && clip_older(chunk.id, id_)) return;
  if (receiving() && chunk.id != id_) {
    clip_log(config_, "clipboard: incoming #%u (%u of %u B) replaced by #%u", id_, got_, total_,
             chunk.id);
    buffer_.reset();
  }
  if (!receiving() && !begin(chunk)) return;
  if (chunk.kind != kind_ || chunk.total != total_) return;

  std::memcpy(buffer_.get() + chunk.offset, bytes, size);
  got_ += bitmap_.mark(chunk.offset, size);
  if (got_ < total_) {
    if (asks) send_ack(id_, CLIP_MISSING);
    return;
  }

  // What was copied here meanwhile is on its way to the peer, where it replaces this item.
  const bool outdated = started_us_ < sender_.last_offer_us();
  clip_log(config_, "clipboard: received #%u %s, %u B in %.0f ms%s", id_, clip_kind_name(kind_),
           total_, static_cast<double>(lund_now_us() - started_us_) / 1000,
           outdated ? "; not applied (something newer was copied here meanwhile)" : "");
  ClipBytes item = std::move(buffer_);
  end(id_, CLIP_COMPLETE);
  held.unlock();
  if (!outdated && config_.on_data != nullptr)
    config_.on_data(config_.user, chunk.id, chunk.kind, item.release(), chunk.total);
}

bool ClipboardReceiver::begin(const lund_clipboard_chunk& chunk) {
  if (chunk.total > clip_kind_limit(chunk.kind)) {
    clip_log(config_, "clipboard: rejecting #%u: %s of %u B", chunk.id, clip_kind_name(chunk.kind),
             chunk.total);
    end(chunk.id, CLIP_REJECTED);
    return false;
  }
  buffer_ = clip_allocate(chunk.total);
  if (!buffer_ || !bitmap_.reset(chunk.total)) {
    clip_log(config_, "clipboard: rejecting #%u: out of memory for %u B", chunk.id, chunk.total);
    end(chunk.id, CLIP_REJECTED);
    return false;
  }
  id_ = chunk.id;
  kind_ = chunk.kind;
  total_ = chunk.total;
  got_ = 0;
  started_us_ = lund_now_us();
  return true;
}

void ClipboardReceiver::end(std::uint32_t id, ClipStatus status) {
  buffer_.reset();
  bitmap_.release();
  done_ = {.id = id, .status = status};
  send_ack(id, status);
}

void ClipboardReceiver::send_ack(std::uint32_t id, ClipStatus status) {
  lund_clipboard_ack ack{.id = id, .status = status};
  if (status == CLIP_MISSING)
    ack.range_count = bitmap_.gaps(std::span(ack.ranges).first(range_room(mtu_)));
  const lund_packet_header header{.session_id = session_};
  std::uint8_t packet[ACK_MAX];
  const std::size_t length = lund_encode_clipboard_ack(packet, sizeof packet, &header, &ack);
  config_.send(config_.user, packet, length);
}
