#include "capture/linux/x11.h"

#include <cstring>
#include <string_view>

namespace x11 {
namespace {

std::string atom_name(const Connection& connection, xcb_atom_t atom) {
  const auto reply =
      own(xcb_get_atom_name_reply(connection, xcb_get_atom_name(connection, atom), nullptr));
  if (!reply) return {};
  return {xcb_get_atom_name_name(reply.get()),
          static_cast<std::size_t>(xcb_get_atom_name_name_length(reply.get()))};
}

bool has_randr_monitors(const Connection& connection) {
  if (!connection.has_extension("RANDR")) return false;
  const auto version = own(xcb_randr_query_version_reply(
      connection, xcb_randr_query_version(connection, 1, 5), nullptr));
  return version && (version->major_version > 1 || version->minor_version >= 5);
}

}  // namespace

Connection::Connection() {
  int number = 0;
  connection_ = xcb_connect(nullptr, &number);
  if (!ok()) return;
  auto it = xcb_setup_roots_iterator(xcb_get_setup(connection_));
  for (; number > 0 && it.rem > 0; --number) xcb_screen_next(&it);
  if (it.rem > 0) screen_ = it.data;
}

bool Connection::has_extension(const char* name) const {
  const auto reply = own(xcb_query_extension_reply(
      connection_,
      xcb_query_extension(connection_, static_cast<std::uint16_t>(std::strlen(name)), name),
      nullptr));
  return reply && reply->present;
}

std::optional<std::uint8_t> Connection::first_event(xcb_extension_t* extension) const {
  const xcb_query_extension_reply_t* data = xcb_get_extension_data(connection_, extension);
  if (!data || !data->present) return std::nullopt;
  return data->first_event;
}

std::vector<Monitor> monitors(const Connection& connection) {
  const xcb_screen_t* screen = connection.screen();
  if (!screen || !has_randr_monitors(connection)) return {};
  const auto reply = own(xcb_randr_get_monitors_reply(
      connection, xcb_randr_get_monitors(connection, screen->root, 1), nullptr));
  if (!reply) return {};
  std::vector<Monitor> found;
  for (auto it = xcb_randr_get_monitors_monitors_iterator(reply.get()); it.rem > 0;
       xcb_randr_monitor_info_next(&it)) {
    const xcb_randr_monitor_info_t& info = *it.data;
    Monitor monitor;
    monitor.name = atom_name(connection, info.name);
    monitor.x = info.x;
    monitor.y = info.y;
    monitor.width = info.width;
    monitor.height = info.height;
    monitor.primary = info.primary != 0;
    if (xcb_randr_monitor_info_outputs_length(&info) > 0) {
      monitor.output = xcb_randr_monitor_info_outputs(&info)[0];
    }
    found.push_back(std::move(monitor));
  }
  return found;
}

bool is_xwayland(const Connection& connection) {
  if (connection.has_extension("XWAYLAND")) return true;
  for (const Monitor& monitor : monitors(connection)) {
    if (monitor.name.starts_with("XWAYLAND")) return true;
  }
  return false;
}

}  // namespace x11
