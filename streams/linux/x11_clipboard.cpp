// The CLIPBOARD selection of the X server that DISPLAY names. A thread of its own has the
// connection: it serves those who paste while the listener is at work, and reads for the listener,
// who waits for the end of what it has asked for. One mutex guards what the two share. A server
// that is gone is looked for once a second.
#include <poll.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "connection/byte_order.h"
#include "connection/clock.h"
#include "control/linux/deadline.h"
#include "control/wake_event.h"
#include "streams/bitmap.h"
#include "streams/clipboard_access.h"
#include "streams/linux/x11_selection.h"
#include "streams/linux/x11_selection_owner.h"
#include "streams/linux/x11_selection_reader.h"

namespace {

constexpr std::uint64_t RECONNECT_US = 1'000'000;
constexpr std::uint64_t TARGETS_MAX_BYTES = 4 * 1024;  // far more than programs offer
constexpr std::uint64_t HINT_MAX_BYTES = 64;
constexpr std::string_view HINT_SECRET = "secret";
constexpr std::uint64_t BMP_HEADER_BYTES = 14;

constexpr ClipboardTraits TRAITS{false, PASSWORD_HINT, "libpng"};

// One connection, and all that lives and dies with it. The X thread's.
struct Session {
  Session() : atoms(connection), reader(connection, atoms), owner(connection, atoms) {}

  x11::Connection connection;
  SelectionAtoms atoms;
  SelectionReader reader;
  SelectionOwner owner;
  std::uint8_t xfixes_event = 0;
  // Of the last change of the selection; by its time its owner is asked.
  xcb_timestamp_t changed_at = XCB_CURRENT_TIME;
};

// What the listener asks of the X thread, one at a time.
struct Request {
  enum class Kind { Ask, Write } kind = Kind::Ask;
  // Ask: picks the target by the names of this connection.
  xcb_atom_t target = XCB_NONE;
  std::uint64_t most_bytes = 0;
  std::shared_ptr<const ClipboardContent> content;

  SelectionReader::State state = SelectionReader::State::Abandoned;
  ClipboardBlock block;
  xcb_atom_t type = XCB_NONE;
  std::optional<std::uint32_t> sequence;
};

class X11Clipboard final : public ClipboardAccess {
 public:
  ~X11Clipboard() override { finish(); }

  const ClipboardTraits& traits() const override { return TRAITS; }
  bool start(const ClipboardLog& log) override;
  void finish() override;
  bool has_pictures() override { return true; }
  bool wait(std::uint32_t timeout_ms) override;
  std::uint32_t sequence() override;
  bool open() override;
  bool has(ClipboardForm form) override;
  std::optional<ClipboardBlock> read(ClipboardForm form, std::uint64_t most_bytes) override;
  void close() override { targets_.clear(); }
  std::optional<std::uint32_t> write(std::shared_ptr<const ClipboardContent> content) override;
  void wake() override { listener_.set(); }
  void interrupt() override;

 private:
  // The listener's side.
  bool ask(xcb_atom_t target, std::uint64_t most_bytes, Request* request);
  void hand_over(Request* request);
  std::optional<ClipboardBlock> read_text(std::uint64_t most_bytes);
  std::optional<ClipboardBlock> read_bmp(std::uint64_t most_bytes);
  bool offers(xcb_atom_t target) const;
  xcb_atom_t text_target() const;
  bool is_secret();

  // The X thread's.
  void run();
  std::unique_ptr<Session> connect();
  void lose_server();
  void begin_request();
  void answer_if_done();
  void answer();
  void drain_events();
  void dispatch(const xcb_generic_event_t& event);
  void selection_changed(const xcb_xfixes_selection_notify_event_t& event);
  void sleep();

  ClipboardLog log_;
  std::thread thread_;
  WakeEvent x_thread_{WakeEvent::Reset::Auto};
  WakeEvent listener_{WakeEvent::Reset::Auto};
  WakeEvent answered_{WakeEvent::Reset::Auto};
  std::atomic<bool> interrupted_{false};

  std::mutex mutex_;
  std::optional<SelectionAtoms> atoms_;  // of the present server; none without one
  Request* request_ = nullptr;           // from hand_over to answer
  std::uint32_t sequence_ = 0;
  bool changed_ = false;
  bool ended_ = false;  // nothing is answered any more

  // The X thread's alone, after start.
  std::unique_ptr<Session> session_;
  Request* begun_ = nullptr;  // the request that is being worked at
  std::uint64_t reconnect_at_us_ = 0;

  // The listener's alone: what the open selection offers, and the names it was asked by.
  std::vector<xcb_atom_t> targets_;
  std::optional<SelectionAtoms> names_;
};

// ---- The listener's side

bool X11Clipboard::start(const ClipboardLog& log) {
  log_ = log;
  session_ = connect();
  if (!session_) return false;
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void X11Clipboard::finish() {
  interrupt();
  if (thread_.joinable()) thread_.join();
}

void X11Clipboard::interrupt() {
  interrupted_ = true;
  x_thread_.set();
  listener_.set();
}

bool X11Clipboard::wait(std::uint32_t timeout_ms) {
  if (!interrupted_) listener_.wait(timeout_ms);
  const std::lock_guard lock(mutex_);
  return std::exchange(changed_, false);
}

std::uint32_t X11Clipboard::sequence() {
  const std::lock_guard lock(mutex_);
  return sequence_;
}

// The X thread answers every request, and those it can't deal with at once.
void X11Clipboard::hand_over(Request* request) {
  {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
    request_ = request;
  }
  x_thread_.set();
  answered_.wait(FOREVER_MS);
}

bool X11Clipboard::ask(xcb_atom_t target, std::uint64_t most_bytes, Request* request) {
  request->target = target;
  request->most_bytes = most_bytes;
  hand_over(request);
  if (request->state == SelectionReader::State::Silent)
    log_("clipboard: the program that owns the selection doesn't answer");
  return request->state == SelectionReader::State::Done;
}

// An owner that doesn't know TARGETS has text or nothing.
bool X11Clipboard::open() {
  {
    const std::lock_guard lock(mutex_);
    names_ = atoms_;
  }
  if (!names_) return false;
  Request request;
  if (!ask(names_->targets, TARGETS_MAX_BYTES, &request)) {
    targets_ = {XCB_ATOM_STRING};
    return request.state == SelectionReader::State::Refused;
  }
  targets_.clear();
  const auto& bytes = request.block.bytes;
  for (std::size_t i = 0; i + 4 <= bytes.size(); i += 4)
    targets_.push_back(load_le<std::uint32_t>(&bytes[i]));
  return true;
}

bool X11Clipboard::offers(xcb_atom_t target) const {
  return std::find(targets_.begin(), targets_.end(), target) != targets_.end();
}

xcb_atom_t X11Clipboard::text_target() const {
  for (const xcb_atom_t target :
       {names_->utf8_string, names_->text_utf8, xcb_atom_t{XCB_ATOM_STRING}}) {
    if (offers(target)) return target;
  }
  return XCB_NONE;
}

bool X11Clipboard::has(ClipboardForm form) {
  switch (form) {
    case ClipboardForm::PrivateMark:
      return is_secret();
    case ClipboardForm::Text:
      return text_target() != XCB_NONE;
    case ClipboardForm::Png:
      return offers(names_->png);
    case ClipboardForm::Dib:
      return offers(names_->bmp);
  }
  return false;
}

// A hint that can't be read counts as one.
bool X11Clipboard::is_secret() {
  if (!offers(names_->password_hint)) return false;
  Request request;
  if (!ask(names_->password_hint, HINT_MAX_BYTES, &request)) return true;
  const auto& bytes = request.block.bytes;
  return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()) == HINT_SECRET;
}

std::optional<ClipboardBlock> X11Clipboard::read(ClipboardForm form, std::uint64_t most_bytes) {
  switch (form) {
    case ClipboardForm::Text:
      return read_text(most_bytes);
    case ClipboardForm::Dib:
      return read_bmp(most_bytes);
    case ClipboardForm::Png: {
      Request request;
      if (!ask(names_->png, most_bytes, &request) &&
          request.state != SelectionReader::State::TooLarge)
        return std::nullopt;
      return std::move(request.block);
    }
    case ClipboardForm::PrivateMark:
      break;
  }
  return std::nullopt;
}

std::optional<ClipboardBlock> X11Clipboard::read_text(std::uint64_t most_bytes) {
  Request request;
  if (!ask(text_target(), most_bytes, &request)) {
    if (request.state == SelectionReader::State::TooLarge) return std::move(request.block);
    return std::nullopt;
  }
  if (request.type == XCB_ATOM_STRING) {
    const std::string utf8 = utf8_from_latin1(
        {reinterpret_cast<const char*>(request.block.bytes.data()), request.block.bytes.size()});
    request.block.bytes.assign(utf8.begin(), utf8.end());
    request.block.size = utf8.size();
    if (utf8.size() > most_bytes) request.block.bytes.clear();
  }
  return std::move(request.block);
}

std::optional<ClipboardBlock> X11Clipboard::read_bmp(std::uint64_t most_bytes) {
  Request request;
  if (!ask(names_->bmp, most_bytes + BMP_HEADER_BYTES, &request)) {
    if (request.state == SelectionReader::State::TooLarge) return std::move(request.block);
    return std::nullopt;
  }
  ClipboardBlock block;
  block.bytes = dib_from_bmp_file(request.block.bytes);
  block.size = block.bytes.size();
  return block;
}

std::optional<std::uint32_t> X11Clipboard::write(std::shared_ptr<const ClipboardContent> content) {
  Request request;
  request.kind = Request::Kind::Write;
  request.content = std::move(content);
  hand_over(&request);
  return request.sequence;
}

// ---- The X thread's side

std::unique_ptr<Session> X11Clipboard::connect() {
  auto session = std::make_unique<Session>();
  x11::Connection& connection = session->connection;
  if (!connection.ok() || !session->atoms.ok()) return nullptr;
  const auto version = x11::own(xcb_xfixes_query_version_reply(
      connection, xcb_xfixes_query_version(connection, 5, 0), nullptr));
  const auto first_event = connection.first_event(&xcb_xfixes_id);
  if (!version || !first_event) {
    log_("clipboard: the X server lacks XFIXES, which tells of changes");
    return nullptr;
  }
  session->xfixes_event = static_cast<std::uint8_t>(*first_event + XCB_XFIXES_SELECTION_NOTIFY);
  xcb_xfixes_select_selection_input(connection, session->owner.window(), session->atoms.clipboard,
                                    XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER |
                                        XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY |
                                        XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
  // A server that has taken this tells of every change from now on.
  const auto synced =
      x11::own(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
  if (!synced) return nullptr;
  const std::lock_guard lock(mutex_);
  atoms_ = session->atoms;
  return session;
}

void X11Clipboard::run() {
  while (!interrupted_) {
    if (!session_ && lund_now_us() >= reconnect_at_us_) {
      session_ = connect();
      if (session_) log_("clipboard: the X server is back");
      reconnect_at_us_ = lund_now_us() + RECONNECT_US;
    }
    begin_request();
    if (session_) {
      drain_events();
      session_->reader.tick();
      session_->owner.tick();
      answer_if_done();
      if (!session_->connection.ok()) lose_server();
    }
    sleep();
  }
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  answer();
  session_.reset();
}

void X11Clipboard::lose_server() {
  answer();
  session_.reset();
  reconnect_at_us_ = lund_now_us() + RECONNECT_US;
  {
    const std::lock_guard lock(mutex_);
    atoms_.reset();
  }
  log_("clipboard: the X server is gone");
}

void X11Clipboard::begin_request() {
  Request* request = nullptr;
  {
    const std::lock_guard lock(mutex_);
    request = request_;
  }
  if (request == nullptr || begun_ == request) return;
  begun_ = request;
  if (!session_) {
    answer();
  } else if (request->kind == Request::Kind::Write) {
    session_->owner.take(request->content);
  } else {
    session_->reader.ask(request->target, session_->changed_at, request->most_bytes);
  }
}

// After each event, so that a change behind our own counts as a later one.
void X11Clipboard::answer_if_done() {
  if (begun_ == nullptr) return;
  const bool done = begun_->kind == Request::Kind::Write
                        ? session_->owner.taking() != SelectionOwner::Taking::Pending
                        : !session_->reader.busy();
  if (done) answer();
}

// As far as it has come: without a server, or at the end, nothing was had.
void X11Clipboard::answer() {
  const std::lock_guard lock(mutex_);
  Request* request = std::exchange(request_, nullptr);
  if (request == nullptr) return;
  const bool begun = std::exchange(begun_, nullptr) == request && session_;
  if (begun && request->kind == Request::Kind::Ask && !session_->reader.busy()) {
    request->state = session_->reader.state();
    request->block = {session_->reader.take_bytes(), session_->reader.size()};
    request->type = session_->reader.type();
  } else if (begun && session_->owner.taking() == SelectionOwner::Taking::Done) {
    request->sequence = ++sequence_;
  }
  answered_.set();
}

void X11Clipboard::drain_events() {
  for (;;) {
    xcb_flush(session_->connection);
    const auto event = x11::own(xcb_poll_for_event(session_->connection));
    if (!event) return;
    dispatch(*event);
  }
}

void X11Clipboard::dispatch(const xcb_generic_event_t& event) {
  if (event.response_type == session_->xfixes_event) {
    selection_changed(reinterpret_cast<const xcb_xfixes_selection_notify_event_t&>(event));
  } else {
    session_->reader.handle(event);
    session_->owner.handle(event);
  }
  answer_if_done();
}

void X11Clipboard::selection_changed(const xcb_xfixes_selection_notify_event_t& event) {
  if (event.selection != session_->atoms.clipboard || event.owner == session_->owner.window())
    return;
  session_->changed_at = event.timestamp;
  session_->reader.abandon();
  {
    const std::lock_guard lock(mutex_);
    ++sequence_;
    changed_ = true;
  }
  listener_.set();
}

void X11Clipboard::sleep() {
  std::uint64_t deadline_us = reconnect_at_us_;
  pollfd polled[] = {{static_cast<int>(x_thread_.native_handle()), POLLIN, 0}, {-1, POLLIN, 0}};
  if (session_) {
    xcb_flush(session_->connection);
    // What was read in passing doesn't show at the descriptor any more.
    if (const auto event = x11::own(xcb_poll_for_queued_event(session_->connection)))
      return dispatch(*event);
    polled[1].fd = xcb_get_file_descriptor(session_->connection);
    deadline_us = std::min(session_->reader.deadline_us(), session_->owner.deadline_us());
  }
  const timespec left = time_left(deadline_us);
  ppoll(polled, 2, &left, nullptr);
  if (polled[0].revents != 0) x_thread_.wait(0);  // cleared
}

}  // namespace

std::unique_ptr<ClipboardAccess> make_clipboard_access() {
  return std::make_unique<X11Clipboard>();
}
