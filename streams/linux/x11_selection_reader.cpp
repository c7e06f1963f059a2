#include "streams/linux/x11_selection_reader.h"

#include <algorithm>

#include "connection/byte_order.h"
#include "connection/clock.h"

namespace {

// A program that is busy answers late; one that hangs must not hold up the clipboard for long.
constexpr std::uint64_t STEP_US = 1'000'000;  // the answer, and each piece
constexpr std::uint64_t END_US = 15'000'000;  // the whole

constexpr std::uint32_t WORD = 4;  // what properties are measured in, bytes

std::uint64_t value_bytes(const xcb_get_property_reply_t& reply) {
  return static_cast<std::uint64_t>(xcb_get_property_value_length(&reply));
}

}  // namespace

void SelectionReader::ask(xcb_atom_t target, xcb_timestamp_t time, std::uint64_t most_bytes) {
  window_ = std::make_unique<SelectionWindow>(connection_);
  state_ = State::Asked;
  most_bytes_ = most_bytes;
  bytes_.clear();
  size_ = 0;
  type_ = XCB_NONE;
  const std::uint64_t now_us = lund_now_us();
  step_deadline_us_ = now_us + STEP_US;
  end_deadline_us_ = now_us + END_US;
  xcb_convert_selection(connection_, window_->id(), atoms_.clipboard, target, atoms_.transfer,
                        time);
}

void SelectionReader::abandon() {
  if (busy()) end(State::Abandoned);
}

// An owner that is sending in pieces sees the window go, and stops.
void SelectionReader::end(State state) {
  state_ = state;
  window_.reset();
  if (state != State::Done) bytes_ = {};
}

void SelectionReader::handle(const xcb_generic_event_t& event) {
  if (!busy()) return;
  switch (event.response_type & ~SENT_BY_PROGRAM) {
    case XCB_SELECTION_NOTIFY: {
      const auto& notify = reinterpret_cast<const xcb_selection_notify_event_t&>(event);
      if (state_ == State::Asked && notify.requestor == window_->id()) answered(notify);
      break;
    }
    case XCB_PROPERTY_NOTIFY: {
      const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
      if (state_ == State::Receiving && notify.window == window_->id() &&
          notify.atom == atoms_.transfer && notify.state == XCB_PROPERTY_NEW_VALUE)
        piece_came();
      break;
    }
    default:
      break;
  }
}

void SelectionReader::answered(const xcb_selection_notify_event_t& event) {
  if (event.property != atoms_.transfer) return end(State::Refused);
  const auto head = x11::own(xcb_get_property_reply(
      connection_,
      xcb_get_property(connection_, 0, window_->id(), atoms_.transfer, XCB_ATOM_ANY, 0, 1),
      nullptr));
  if (!head || head->type == XCB_NONE) return end(State::Refused);
  type_ = head->type;
  if (type_ == atoms_.incr) {
    // Its value is the least that will come; an owner may leave it out.
    if (value_bytes(*head) >= WORD)
      size_ = load_le<std::uint32_t>(
          static_cast<const std::uint8_t*>(xcb_get_property_value(head.get())));
    return begin_pieces();
  }
  size_ = value_bytes(*head) + head->bytes_after;
  if (size_ > most_bytes_) return end(State::TooLarge);
  if (take_property()) end(State::Done);
}

void SelectionReader::begin_pieces() {
  if (size_ > most_bytes_) return end(State::TooLarge);
  size_ = 0;
  state_ = State::Receiving;
  step_deadline_us_ = lund_now_us() + STEP_US;
  xcb_delete_property(connection_, window_->id(), atoms_.transfer);  // "go on"
}

void SelectionReader::piece_came() {
  const std::uint64_t before = bytes_.size();
  if (!take_property()) return;
  if (bytes_.size() == before) return end(State::Done);  // an empty piece is the last
  step_deadline_us_ = lund_now_us() + STEP_US;
}

// Appends the property and deletes it. One word more than fits is asked for, never all there is.
bool SelectionReader::take_property() {
  const std::uint64_t room_words = (most_bytes_ - bytes_.size()) / WORD + 1;
  const auto value = x11::own(xcb_get_property_reply(
      connection_,
      xcb_get_property(connection_, 1, window_->id(), atoms_.transfer, XCB_ATOM_ANY, 0,
                       static_cast<std::uint32_t>(room_words)),
      nullptr));
  if (!value) {
    end(State::Refused);
    return false;
  }
  const auto* data = static_cast<const std::uint8_t*>(xcb_get_property_value(value.get()));
  type_ = value->type;
  const std::uint64_t size = bytes_.size() + value_bytes(*value) + value->bytes_after;
  if (size > most_bytes_) {
    size_ = size;
    end(State::TooLarge);
    return false;
  }
  bytes_.insert(bytes_.end(), data, data + value_bytes(*value));
  size_ = bytes_.size();
  return true;
}

std::uint64_t SelectionReader::deadline_us() const {
  return busy() ? std::min(step_deadline_us_, end_deadline_us_) : ~std::uint64_t{0};
}

void SelectionReader::tick() {
  if (lund_now_us() >= deadline_us()) end(State::Silent);
}
