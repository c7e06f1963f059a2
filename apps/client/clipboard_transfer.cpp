#include "apps/client/clipboard_transfer.h"

#include "connection/clock.h"
#include "connection/protocol.h"
#include "control/log.h"

namespace {

// The engine gives up after 5 s without an answer behind a pass, and a pass of the largest picture
// takes 3.4 s at its pace.
constexpr std::uint64_t SILENCE_US = 12'000'000;

}  // namespace

ClipboardTransfer::ClipboardTransfer(std::optional<ClipboardItem> to_send)
    : to_send_(std::move(to_send)) {}

ClipboardTransfer::~ClipboardTransfer() = default;

bool ClipboardTransfer::start() {
  lund_clip_config config;
  config.send = on_send;
  config.on_data = on_data;
  config.log = [](void*, const char* text) { hlog("%s", text); };
  config.user = this;
  clip_.reset(lund_clip_create(&config));
  return clip_ != nullptr;
}

void ClipboardTransfer::on_send(void* user, const std::uint8_t* packet, std::uint64_t length) {
  auto* self = static_cast<ClipboardTransfer*>(user);
  const std::lock_guard lock(self->send_mutex_);
  if (self->send_) self->send_(packet, length);
}

void ClipboardTransfer::on_data(void* user, std::uint32_t, std::uint8_t kind, std::uint8_t* data,
                                std::uint64_t size) {
  auto* self = static_cast<ClipboardTransfer*>(user);
  self->received_ = {static_cast<lund_clip_kind>(kind), {data, data + size}};
  ++self->items_received_;
  lund_clip_free(data);
}

void ClipboardTransfer::session_start(std::uint32_t session, int payload, Send send) {
  {
    const std::lock_guard lock(send_mutex_);
    send_ = std::move(send);
  }
  session_ = session;
  lund_clip_set_session(clip_.get(), session, static_cast<std::uint64_t>(payload));
  offer();
}

void ClipboardTransfer::offer() {
  const bool done = answer_ == CLIP_COMPLETE || answer_ == CLIP_REJECTED;
  if (!to_send_ || done) return;
  heard_us_ = lund_now_us();
  offered_ =
      lund_clip_offer(clip_.get(), to_send_->kind, to_send_->bytes.data(), to_send_->bytes.size());
}

void ClipboardTransfer::session_end(std::uint32_t session) {
  if (session != session_) return;
  {
    const std::lock_guard lock(send_mutex_);
    send_ = nullptr;
  }
  session_ = offered_ = 0;
  lund_clip_set_session(clip_.get(), 0, 0);
}

// The engine drops what is in flight when the size of packets changes.
void ClipboardTransfer::resize(std::uint32_t session, int payload) {
  if (session != session_) return;
  lund_clip_set_session(clip_.get(), session, static_cast<std::uint64_t>(payload));
  offer();
}

void ClipboardTransfer::receive(const std::uint8_t* data, std::uint64_t size) {
  lund_clip_receive(clip_.get(), data, size);
  lund_clipboard_ack ack;
  if (lund_decode_clipboard_ack(data, static_cast<std::size_t>(size), &ack) != 0 || offered_ == 0 ||
      ack.id != offered_)
    return;
  heard_us_ = lund_now_us();
  answer_ = ack.status;
}

ClipboardTransfer::Delivery ClipboardTransfer::delivery(std::uint64_t now_us) const {
  if (!to_send_) return Delivery::Nothing;
  if (answer_ == CLIP_COMPLETE) return Delivery::Delivered;
  if (answer_ == CLIP_REJECTED) return Delivery::Rejected;
  const bool silent = offered_ != 0 && now_us - heard_us_ > SILENCE_US;
  return silent ? Delivery::GivenUp : Delivery::Pending;
}
