#include "streams/clipboard_listener.h"

#include <new>
#include <utility>

#include "connection/clock.h"
#include "connection/fnv1a.h"
#include "streams/clipboard_text.h"

namespace {

constexpr int OPEN_RETRIES = 10;
constexpr std::uint64_t OPEN_RETRY_US = 30'000;
constexpr int WRITE_ATTEMPTS = 10;
constexpr std::uint32_t WRITE_RETRY_MS = 20;

// What a text of the largest size may grow to by CR LF.
constexpr std::uint64_t LOCAL_TEXT_MAX = 2 * std::uint64_t{LUND_CLIP_TEXT_MAX};
// A picture may be read that has yet to be made smaller; this holds one of 8192 x 8192 pixels.
constexpr std::uint64_t LOCAL_PICTURE_MAX = 256 << 20;

// The clipboard holds one item, so of many that wait the newest are enough.
constexpr std::size_t INCOMING_MAX = 4;

constexpr char NOT_CONVERTED[] = "clipboard: local bitmap could not be converted to PNG";

std::uint64_t item_hash(std::uint8_t kind, std::span<const std::uint8_t> bytes) {
  Fnv1a hash;
  hash.add(kind);
  hash.add(bytes);
  return hash.value();
}

std::string number(std::uint64_t value) {
  return std::to_string(value);
}

}  // namespace

ClipboardListener::ClipboardListener(ClipboardAccess& access, bool enabled, ClipboardLog log,
                                     Offer offer)
    : access_(access), log_(std::move(log)), offer_(std::move(offer)) {
  state_.enabled = enabled;
}

void ClipboardListener::set_enabled(bool enabled) {
  {
    const std::lock_guard lock(mutex_);
    state_.enabled = enabled;
  }
  log_(std::string("clipboard sync ") + (enabled ? "on" : "off"));
}

bool ClipboardListener::enabled() const {
  const std::lock_guard lock(mutex_);
  return state_.enabled;
}

void ClipboardListener::set_session(std::uint32_t session) {
  const std::lock_guard lock(mutex_);
  state_.session = session;
}

std::uint32_t ClipboardListener::session() const {
  const std::lock_guard lock(mutex_);
  return state_.session;
}

void ClipboardListener::post(IncomingItem item) {
  IncomingItem outrun;
  {
    const std::lock_guard lock(mutex_);
    if (state_.incoming.size() == INCOMING_MAX) {
      outrun = std::move(state_.incoming.front());
      state_.incoming.pop_front();
    }
    state_.incoming.push_back(std::move(item));
  }
  if (outrun.data)
    log_("clipboard: #" + number(outrun.id) + " not applied (newer ones are waiting)");
}

void ClipboardListener::step() {
  if (access_.wait(wait_ms())) clipboard_changed();
  if (retry_at_us_ != 0 && lund_now_us() >= retry_at_us_) {
    retry_at_us_ = 0;
    read_and_send();
  }
  apply_incoming();
}

std::uint32_t ClipboardListener::wait_ms() const {
  if (retry_at_us_ == 0) return ClipboardAccess::FOREVER_MS;
  const std::uint64_t now_us = lund_now_us();
  return now_us >= retry_at_us_ ? 0
                                : static_cast<std::uint32_t>((retry_at_us_ - now_us + 999) / 1'000);
}

// ---- From here to the client

void ClipboardListener::clipboard_changed() {
  if (access_.sequence() == own_sequence_) return;
  open_failures_ = 0;
  retry_at_us_ = 0;
  read_and_send();
}

bool ClipboardListener::wants_changes() const {
  const std::lock_guard lock(mutex_);
  return state_.enabled && state_.session != 0;
}

void ClipboardListener::read_and_send() {
  if (!wants_changes() || access_.sequence() == own_sequence_) return;
  if (!access_.open()) return count_open_failure();
  try {
    send_what_is_open();
  } catch (const std::bad_alloc&) {
    access_.close();
    log_("clipboard: a local change is too large for this computer's memory; not sent");
  }
}

void ClipboardListener::count_open_failure() {
  if (++open_failures_ <= OPEN_RETRIES) {
    retry_at_us_ = lund_now_us() + OPEN_RETRY_US;
  } else {
    log_("clipboard: could not open the clipboard to read a change");
  }
}

// Text before pictures: a program that has copied text and puts a picture of it beside it means the
// text.
void ClipboardListener::send_what_is_open() {
  if (access_.has(ClipboardForm::PrivateMark)) {
    access_.close();
    log_(std::string("clipboard: local change is marked private (") +
         access_.traits().private_mark + "); not sent");
    return;
  }
  if (access_.has(ClipboardForm::Text)) return send_text();
  if (access_.has_pictures()) {
    if (access_.has(ClipboardForm::Png)) return send_png();
    if (access_.has(ClipboardForm::Dib)) return send_dib();
  }
  access_.close();
}

// Closed before any work is done, for others wait for the clipboard.
std::optional<ClipboardBlock> ClipboardListener::read_and_close(ClipboardForm form,
                                                                std::uint64_t most_bytes) {
  std::optional<ClipboardBlock> block = access_.read(form, most_bytes);
  access_.close();
  return block;
}

void ClipboardListener::send_text() {
  const auto block = read_and_close(ClipboardForm::Text, LOCAL_TEXT_MAX);
  if (!block) return;
  const std::string text =
      text_for_wire({reinterpret_cast<const char*>(block->bytes.data()), block->bytes.size()});
  const std::uint64_t size = block->size > LOCAL_TEXT_MAX ? block->size : text.size();
  if (size > LUND_CLIP_TEXT_MAX) {
    log_("clipboard: local text of " + number(size) + " B is over the 1 MB limit; not sent");
    return;
  }
  if (text.empty()) return;
  offer(LUND_CLIP_TEXT, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

void ClipboardListener::send_png() {
  auto block = read_and_close(ClipboardForm::Png, LOCAL_PICTURE_MAX);
  if (!block) return;
  if (block->size > LOCAL_PICTURE_MAX)
    return log_("clipboard: local image could not be downscaled");
  if (block->bytes.empty()) return;
  const auto png = png_for_sending(std::move(block->bytes), nullptr, log_);
  if (png) offer(LUND_CLIP_PNG, *png);
}

void ClipboardListener::send_dib() {
  std::optional<std::vector<std::uint8_t>> png;
  try {
    auto block = read_and_close(ClipboardForm::Dib, LOCAL_PICTURE_MAX);
    Image image;
    std::vector<std::uint8_t> encoded;
    if (!block || !image_from_dib(block->bytes, &image) || !encode_png(image, &encoded))
      return log_(NOT_CONVERTED);
    block.reset();
    png = png_for_sending(std::move(encoded), &image, log_);
  } catch (const std::bad_alloc&) {
    return log_(NOT_CONVERTED);
  }
  if (png) offer(LUND_CLIP_PNG, *png);
}

// What was seen last, either way, doesn't go out again: neither a repeated copy nor what a
// clipboard manager has written anew.
void ClipboardListener::offer(std::uint8_t kind, std::span<const std::uint8_t> bytes) {
  const std::uint64_t hash = item_hash(kind, bytes);
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(state_.last_hash, hash) == hash) return;
  }
  offer_(kind, bytes);
}

// ---- From the client to here

void ClipboardListener::apply_incoming() {
  for (;;) {
    IncomingItem item;
    {
      const std::lock_guard lock(mutex_);
      if (state_.incoming.empty()) return;
      item = std::move(state_.incoming.front());
      state_.incoming.pop_front();
    }
    apply(item);
  }
}

void ClipboardListener::apply(const IncomingItem& item) {
  switch (note(item)) {
    case Seen::SyncOff:
      return log_("clipboard: #" + number(item.id) + " not applied (sync is off)");
    case Seen::Before:
      return log_("clipboard: #" + number(item.id) + " is already on the clipboard");
    case Seen::New:
      break;
  }
  if (item.kind != LUND_CLIP_TEXT && item.kind != LUND_CLIP_PNG) return;
  std::shared_ptr<const ClipboardContent> content;
  try {
    content = prepare(item);
    if (!content) return log_("clipboard: #" + number(item.id) + " is not a readable PNG");
  } catch (const std::bad_alloc&) {
  }
  put(item.id, content);
}

ClipboardListener::Seen ClipboardListener::note(const IncomingItem& item) {
  const std::uint64_t hash = item_hash(item.kind, item.bytes());
  const std::lock_guard lock(mutex_);
  if (!state_.enabled) return Seen::SyncOff;
  return std::exchange(state_.last_hash, hash) == hash ? Seen::Before : Seen::New;
}

// A picture goes to programs that know alpha as it came, and to others laid over white. Null when
// it can't be read.
std::shared_ptr<const ClipboardContent> ClipboardListener::prepare(const IncomingItem& item) const {
  auto content = std::make_shared<ClipboardContent>();
  if (item.kind == LUND_CLIP_TEXT) {
    content->text = text_for_programs({reinterpret_cast<const char*>(item.data.get()), item.size},
                                      access_.traits().crlf);
    return content;
  }
  Image image;
  if (!access_.has_pictures() || !decode_png(item.bytes(), &image)) return nullptr;
  content->dib = dib_over_white(image);
  content->png.assign(item.bytes().begin(), item.bytes().end());
  return content;
}

void ClipboardListener::put(std::uint32_t id,
                            const std::shared_ptr<const ClipboardContent>& content) {
  for (int attempt = 0; content && attempt < WRITE_ATTEMPTS; ++attempt) {
    if (attempt > 0 && stopping_.wait(WRITE_RETRY_MS)) break;
    if (const auto sequence = access_.write(content)) {
      own_sequence_ = *sequence;
      return;
    }
  }
  log_("clipboard: could not open the clipboard to set #" + number(id));
}
