#include "streams/host_clipboard_sync.h"

#include <system_error>
#include <utility>

#include "control/keystore.h"
#include "control/log.h"
#include "control/switches.h"

namespace {

// Null when the system is out of what an event takes.
std::shared_ptr<ClipboardSync> make_sync(const HostClipboardSync::MakeAccess& make_access) try {
  return std::make_shared<ClipboardSync>(
      make_access(), [](const std::string& line) { hlog("%s", line.c_str()); },
      load_clipboard_sync(keystore::hostStoreDirectory()));
} catch (const std::system_error&) {
  return nullptr;
}

}  // namespace

HostClipboardSync::HostClipboardSync(MakeAccess make_access)
    : make_access_(std::move(make_access)) {}

HostClipboardSync::Sync HostClipboardSync::sync() const {
  const std::lock_guard lock(mutex_);
  return sync_;
}

HostClipboardSync::Sync HostClipboardSync::begin(bool* first) {
  const std::lock_guard lock(mutex_);
  *first = !std::exchange(begun_, true);
  if (*first) sync_ = make_sync(make_access_);
  return sync_;
}

void HostClipboardSync::session_start(std::uint32_t session, int payload, Send send) {
  bool first = false;
  const Sync sync = begin(&first);
  if (first && (!sync || !sync->start()))
    hlog("clipboard: could not start the clipboard listener; clipboard sync is off");
  if (sync) sync->session_up(session, static_cast<std::uint64_t>(payload), std::move(send));
}

void HostClipboardSync::resize(std::uint32_t session, int payload) {
  if (const Sync to = sync()) to->resize(session, static_cast<std::uint64_t>(payload));
}

void HostClipboardSync::session_end(std::uint32_t session) {
  if (const Sync to = sync()) to->session_down(session);
}

void HostClipboardSync::receive(const std::uint8_t* data, std::uint64_t size) {
  if (const Sync to = sync()) to->receive(data, size);
}

void HostClipboardSync::set_enabled(bool enabled) {
  save_clipboard_sync(keystore::hostStoreDirectory(), enabled);
  if (const Sync to = sync()) {
    to->set_enabled(enabled);
  } else {
    hlog("clipboard sync %s", enabled ? "on" : "off");
  }
}

bool HostClipboardSync::enabled() {
  const Sync from = sync();
  return from ? from->enabled() : load_clipboard_sync(keystore::hostStoreDirectory());
}
