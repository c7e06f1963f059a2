#include "streams/linux/x11_selection_owner.h"

#include <algorithm>
#include <utility>

#include "connection/clock.h"
#include "streams/bitmap.h"

namespace {

// Below what every server takes in one request, 262,140 bytes.
constexpr std::size_t PIECE_BYTES = 128 << 10;
constexpr std::uint64_t REQUESTOR_US = 5'000'000;  // to take a piece
constexpr std::uint64_t TAKING_US = 1'000'000;     // for the server to tell its time
constexpr std::size_t TRANSFERS_MAX = 32;
constexpr std::uint32_t MULTIPLE_WORDS_MAX = 128;  // 64 pairs

std::span<const std::uint8_t> as_bytes(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Server time wraps each 49.7 days.
bool before(xcb_timestamp_t time, xcb_timestamp_t than) {
  return static_cast<std::int32_t>(time - than) < 0;
}

void set_property(const x11::Connection& connection, xcb_window_t window, xcb_atom_t property,
                  xcb_atom_t type, std::span<const std::uint8_t> bytes) {
  xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, property, type, 8,
                      static_cast<std::uint32_t>(bytes.size()), bytes.data());
}

void set_words(const x11::Connection& connection, xcb_window_t window, xcb_atom_t property,
               xcb_atom_t type, std::span<const std::uint32_t> words) {
  xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, property, type, 32,
                      static_cast<std::uint32_t>(words.size()), words.data());
}

void watch(const x11::Connection& connection, xcb_window_t window, std::uint32_t events) {
  xcb_change_window_attributes(connection, window, XCB_CW_EVENT_MASK, &events);
}

}  // namespace

SelectionOwner::Offered::Offered(std::shared_ptr<const ClipboardContent> from)
    : content(std::move(from)) {
  if (content->text) latin1 = latin1_from_utf8(*content->text);
}

std::span<const std::uint8_t> SelectionOwner::Offered::bmp() {
  if (bmp_.empty()) bmp_ = bmp_file_from_dib(content->dib);
  return bmp_;
}

// ---- Taking and losing the selection

// An owner says since when it is one, in the server's time, which comes with a property's change
// (ICCCM 2.1).
void SelectionOwner::take(std::shared_ptr<const ClipboardContent> content) {
  wanted_ = std::make_shared<Offered>(std::move(content));
  taking_ = Taking::Pending;
  taking_deadline_us_ = lund_now_us() + TAKING_US;
  xcb_change_property(connection_, XCB_PROP_MODE_APPEND, window_.id(), atoms_.timestamp,
                      XCB_ATOM_INTEGER, 32, 0, nullptr);
}

void SelectionOwner::own_since(xcb_timestamp_t time) {
  xcb_set_selection_owner(connection_, window_.id(), atoms_.clipboard, time);
  const auto owner = x11::own(xcb_get_selection_owner_reply(
      connection_, xcb_get_selection_owner(connection_, atoms_.clipboard), nullptr));
  if (!owner || owner->owner != window_.id()) {
    taking_ = Taking::Failed;
    wanted_.reset();
    return;
  }
  taking_ = Taking::Done;
  offered_ = std::move(wanted_);
  since_ = time;
}

void SelectionOwner::lost(const xcb_selection_clear_event_t& event) {
  if (event.selection == atoms_.clipboard && event.owner == window_.id() &&
      !before(event.time, since_))
    offered_.reset();
}

// ---- Serving

void SelectionOwner::handle(const xcb_generic_event_t& event) {
  switch (event.response_type & ~SENT_BY_PROGRAM) {
    case 0: {
      const auto& error = reinterpret_cast<const xcb_generic_error_t&>(event);
      if (error.error_code == XCB_WINDOW) forget_requestor(error.resource_id);
      break;
    }
    case XCB_SELECTION_REQUEST:
      asked(reinterpret_cast<const xcb_selection_request_event_t&>(event));
      break;
    case XCB_SELECTION_CLEAR:
      lost(reinterpret_cast<const xcb_selection_clear_event_t&>(event));
      break;
    case XCB_PROPERTY_NOTIFY: {
      const auto& notify = reinterpret_cast<const xcb_property_notify_event_t&>(event);
      if (notify.window == window_.id()) {
        if (taking_ == Taking::Pending && notify.atom == atoms_.timestamp) own_since(notify.time);
      } else if (notify.state == XCB_PROPERTY_DELETE) {
        property_deleted(notify);
      }
      break;
    }
    case XCB_DESTROY_NOTIFY:
      forget_requestor(reinterpret_cast<const xcb_destroy_notify_event_t&>(event).window);
      break;
    default:
      break;
  }
}

void SelectionOwner::asked(const xcb_selection_request_event_t& request) {
  // Programs from before the convention leave the property out and mean the target's name.
  const xcb_atom_t property = request.property != XCB_NONE ? request.property : request.target;
  const bool timely = request.time == XCB_CURRENT_TIME || !before(request.time, since_);
  const bool done = offered_ && timely && request.selection == atoms_.clipboard &&
                    (request.target == atoms_.multiple
                         ? request.property != XCB_NONE && convert_many(request.requestor, property)
                         : convert(request.requestor, request.target, property));
  xcb_selection_notify_event_t answer{};
  answer.response_type = XCB_SELECTION_NOTIFY;
  answer.time = request.time;
  answer.requestor = request.requestor;
  answer.selection = request.selection;
  answer.target = request.target;
  answer.property = done ? property : xcb_atom_t{XCB_NONE};
  // An event on the wire has 32 bytes, whatever its own are.
  char wire[32] = {};
  static_assert(sizeof(answer) <= sizeof(wire));
  std::copy_n(reinterpret_cast<const char*>(&answer), sizeof(answer), wire);
  xcb_send_event(connection_, 0, request.requestor, XCB_EVENT_MASK_NO_EVENT, wire);
}

bool SelectionOwner::convert(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property) {
  if (target == atoms_.targets) {
    set_words(connection_, requestor, property, XCB_ATOM_ATOM, targets());
    return true;
  }
  if (target == atoms_.timestamp) {
    set_words(connection_, requestor, property, XCB_ATOM_INTEGER, {&since_, 1});
    return true;
  }
  const xcb_atom_t type = type_of(target);
  return type != XCB_NONE && send(requestor, property, type);
}

// The property has pairs of target and property; a target that can't be had is answered by None in
// its place (ICCCM 2.6.2).
bool SelectionOwner::convert_many(xcb_window_t requestor, xcb_atom_t property) {
  const auto reply = x11::own(xcb_get_property_reply(
      connection_,
      xcb_get_property(connection_, 0, requestor, property, XCB_ATOM_ANY, 0, MULTIPLE_WORDS_MAX),
      nullptr));
  if (!reply || reply->format != 32 || reply->bytes_after > 0) return false;
  const auto* first = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
  std::vector<std::uint32_t> pairs(first, first + reply->value_len / 2 * 2);
  for (std::size_t i = 0; i < pairs.size(); i += 2) {
    const bool done = pairs[i] != atoms_.multiple && pairs[i + 1] != XCB_NONE &&
                      convert(requestor, pairs[i], pairs[i + 1]);
    if (!done) pairs[i] = XCB_NONE;
  }
  set_words(connection_, requestor, property, atoms_.atom_pair, pairs);
  return true;
}

std::vector<xcb_atom_t> SelectionOwner::targets() const {
  std::vector<xcb_atom_t> targets{atoms_.targets, atoms_.multiple, atoms_.timestamp};
  for (const xcb_atom_t target : {atoms_.utf8_string, atoms_.text_utf8, atoms_.text,
                                  xcb_atom_t{XCB_ATOM_STRING}, atoms_.png, atoms_.bmp}) {
    if (type_of(target) != XCB_NONE) targets.push_back(target);
  }
  return targets;
}

xcb_atom_t SelectionOwner::type_of(xcb_atom_t target) const {
  const ClipboardContent& content = *offered_->content;
  if (target == atoms_.png) return content.png.empty() ? XCB_NONE : target;
  if (target == atoms_.bmp) return content.dib.empty() ? XCB_NONE : target;
  if (!content.text) return XCB_NONE;
  if (target == atoms_.utf8_string || target == atoms_.text_utf8) return target;
  if (target == atoms_.text) return atoms_.utf8_string;
  const bool is_latin1 = content.text->empty() || !offered_->latin1.empty();
  return target == XCB_ATOM_STRING && is_latin1 ? target : XCB_NONE;
}

std::span<const std::uint8_t> SelectionOwner::bytes_of(xcb_atom_t type) const {
  if (type == atoms_.png) return offered_->content->png;
  if (type == atoms_.bmp) return offered_->bmp();
  return as_bytes(type == XCB_ATOM_STRING ? offered_->latin1 : *offered_->content->text);
}

bool SelectionOwner::send(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type) {
  const std::span<const std::uint8_t> bytes = bytes_of(type);
  if (bytes.size() <= PIECE_BYTES) {
    set_property(connection_, requestor, property, type, bytes);
    return true;
  }
  // One that asks for the same again has given up the first.
  for (auto it = transfers_.begin(); it != transfers_.end();) {
    it = it->requestor == requestor && it->property == property ? forget(it) : std::next(it);
  }
  if (transfers_.size() == TRANSFERS_MAX) return false;
  watch(connection_, requestor, XCB_EVENT_MASK_PROPERTY_CHANGE | XCB_EVENT_MASK_STRUCTURE_NOTIFY);
  const auto least = static_cast<std::uint32_t>(bytes.size());
  set_words(connection_, requestor, property, atoms_.incr, {&least, 1});
  transfers_.push_back(
      {requestor, property, type, bytes, offered_, 0, lund_now_us() + REQUESTOR_US});
  return true;
}

// The requestor has taken a piece, and the first time the announcement. An empty piece is the end.
void SelectionOwner::property_deleted(const xcb_property_notify_event_t& event) {
  const auto it = std::find_if(transfers_.begin(), transfers_.end(), [&event](const Transfer& t) {
    return t.requestor == event.window && t.property == event.atom;
  });
  if (it == transfers_.end()) return;
  const std::size_t size = std::min(PIECE_BYTES, it->bytes.size() - it->sent);
  set_property(connection_, it->requestor, it->property, it->type,
               it->bytes.subspan(it->sent, size));
  it->sent += size;
  it->deadline_us = lund_now_us() + REQUESTOR_US;
  if (size == 0) forget(it);
}

void SelectionOwner::forget_requestor(xcb_window_t window) {
  std::erase_if(transfers_, [window](const Transfer& t) { return t.requestor == window; });
}

std::list<SelectionOwner::Transfer>::iterator SelectionOwner::forget(
    std::list<Transfer>::iterator transfer) {
  const xcb_window_t requestor = transfer->requestor;
  const auto next = transfers_.erase(transfer);
  const bool more =
      std::any_of(transfers_.begin(), transfers_.end(),
                  [requestor](const Transfer& t) { return t.requestor == requestor; });
  if (!more) watch(connection_, requestor, XCB_EVENT_MASK_NO_EVENT);
  return next;
}

std::uint64_t SelectionOwner::deadline_us() const {
  std::uint64_t first = taking_ == Taking::Pending ? taking_deadline_us_ : ~std::uint64_t{0};
  for (const Transfer& transfer : transfers_) first = std::min(first, transfer.deadline_us);
  return first;
}

void SelectionOwner::tick() {
  const std::uint64_t now_us = lund_now_us();
  if (taking_ == Taking::Pending && now_us >= taking_deadline_us_) give_up_taking();
  for (auto it = transfers_.begin(); it != transfers_.end();) {
    it = now_us >= it->deadline_us ? forget(it) : std::next(it);
  }
}
