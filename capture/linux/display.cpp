// Displays are the monitors of RandR 1.5 on the X server that DISPLAY names.
#include "capture/display.h"

#include <cmath>
#include <cstdlib>

#include "capture/linux/x11.h"

namespace {

const char* environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

constexpr const char* WAYLAND_TEXT =
    "this is a Wayland session, whose screens cannot be captured; log in to an X11 (Xorg) session";

// Vertical refresh of a mode: its dot clock over the dots of one whole picture.
std::int32_t mode_hz(const xcb_randr_mode_info_t& mode) {
  double lines = mode.vtotal;
  if (mode.mode_flags & XCB_RANDR_MODE_FLAG_DOUBLE_SCAN) lines *= 2;
  if (mode.mode_flags & XCB_RANDR_MODE_FLAG_INTERLACE) lines /= 2;
  const double dots = lines * mode.htotal;
  return dots > 0 ? static_cast<std::int32_t>(std::lround(mode.dot_clock / dots)) : 0;
}

// Fills in what the monitor's output knows: the refresh rate and the output's name.
void describe_output(const x11::Connection& connection, xcb_randr_output_t output,
                     const xcb_randr_get_screen_resources_current_reply_t& resources,
                     DisplayInfo* display) {
  const auto info = x11::own(xcb_randr_get_output_info_reply(
      connection, xcb_randr_get_output_info(connection, output, resources.config_timestamp),
      nullptr));
  if (!info) return;
  display->name =
      "X11 output " +
      std::string(reinterpret_cast<const char*>(xcb_randr_get_output_info_name(info.get())),
                  info->name_len);
  if (info->crtc == XCB_NONE) return;
  const auto crtc = x11::own(xcb_randr_get_crtc_info_reply(
      connection, xcb_randr_get_crtc_info(connection, info->crtc, resources.config_timestamp),
      nullptr));
  if (!crtc) return;
  const xcb_randr_mode_info_t* modes = xcb_randr_get_screen_resources_current_modes(&resources);
  for (int i = 0; i < xcb_randr_get_screen_resources_current_modes_length(&resources); ++i) {
    if (modes[i].id == crtc->mode) display->refresh_hz = mode_hz(modes[i]);
  }
}

}  // namespace

std::vector<DisplayInfo> list_displays() {
  const x11::Connection connection;
  if (!connection.ok() || x11::is_xwayland(connection)) return {};
  const auto resources = x11::own(xcb_randr_get_screen_resources_current_reply(
      connection, xcb_randr_get_screen_resources_current(connection, connection.screen()->root),
      nullptr));
  std::vector<DisplayInfo> displays;
  for (const x11::Monitor& monitor : x11::monitors(connection)) {
    DisplayInfo display;
    display.device = monitor.name;
    display.name = "X11 screen";
    display.left = monitor.x;
    display.top = monitor.y;
    display.right = monitor.x + monitor.width;
    display.bottom = monitor.y + monitor.height;
    display.primary = monitor.primary;
    if (resources && monitor.output != XCB_NONE) {
      describe_output(connection, monitor.output, *resources, &display);
    }
    displays.push_back(std::move(display));
  }
  return merge_displays({}, displays, {});
}

std::string display_obstacle() {
  const std::string display = environment("DISPLAY");
  if (display.empty()) {
    if (*environment("WAYLAND_DISPLAY")) return WAYLAND_TEXT;
    return "DISPLAY is not set: there is no X display to capture";
  }
  const x11::Connection connection;
  if (!connection.ok()) return "cannot connect to the X display " + display;
  if (x11::is_xwayland(connection)) return WAYLAND_TEXT;
  for (const char* extension : {"RANDR", "MIT-SHM", "DAMAGE", "XFIXES"}) {
    if (!connection.has_extension(extension)) {
      return "the X display " + display + " lacks the extension " + extension;
    }
  }
  if (x11::monitors(connection).empty()) return "the X display " + display + " has no monitor";
  return {};
}

DesktopRect virtual_desktop_rect() {
  const x11::Connection connection;
  const xcb_screen_t* screen = connection.screen();
  if (!screen) return {};
  // The set-up's size is of the time of connecting, which is now.
  return {0, 0, screen->width_in_pixels, screen->height_in_pixels};
}
