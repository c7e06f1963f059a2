#include "worker/linux/display_awake.h"

#include <xcb/screensaver.h>

namespace {

constexpr std::uint8_t MAJOR = 1;
constexpr std::uint8_t MINOR = 1;  // the first that can suspend

bool can_suspend(const x11::Connection& connection) {
  // An X error for an extension that isn't there would close the connection.
  if (!connection.ok() || !connection.has_extension("MIT-SCREEN-SAVER")) return false;
  const auto version = x11::own(xcb_screensaver_query_version_reply(
      connection, xcb_screensaver_query_version(connection, MAJOR, MINOR), nullptr));
  return version && version->server_major_version == MAJOR &&
         version->server_minor_version >= MINOR;
}

bool suspend(const x11::Connection& connection) {
  const auto error =
      x11::own(xcb_request_check(connection, xcb_screensaver_suspend_checked(connection, 1)));
  return !error && connection.ok();
}

}  // namespace

bool DisplayAwake::set(bool on) {
  connection_.reset();
  if (!on) return true;
  connection_.emplace();
  if (can_suspend(*connection_) && suspend(*connection_)) return true;
  connection_.reset();
  return false;
}
