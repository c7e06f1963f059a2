#include "apps/client/view/desktop_clipboard.h"

#include <utility>

#include "control/log.h"

DesktopClipboard::DesktopClipboard(std::unique_ptr<ClipboardAccess> access)
    : sync_(
          std::move(access), [](const std::string& line) { hlog("%s", line.c_str()); }, true) {}

void DesktopClipboard::session_start(std::uint32_t session, int payload, Send send) {
  sync_.session_up(session, static_cast<std::uint64_t>(payload), std::move(send));
}

void DesktopClipboard::session_end(std::uint32_t session) {
  sync_.session_down(session);
}

void DesktopClipboard::resize(std::uint32_t session, int payload) {
  sync_.resize(session, static_cast<std::uint64_t>(payload));
}

void DesktopClipboard::receive(const std::uint8_t* data, std::uint64_t size) {
  sync_.receive(data, size);
}
