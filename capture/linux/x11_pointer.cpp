#include "capture/linux/x11_pointer.h"

#include <xcb/xinput.h>

#include <algorithm>

#include "connection/clock.h"
#include "control/log.h"

namespace {

// Half of what the reports are thinned to, so that none is of a place much older than itself.
constexpr std::uint64_t LOOK_INTERVAL_US = 4'000;

// Raw events reach everyone in spite of grabs since 2.1.
constexpr std::uint16_t XINPUT_MAJOR = 2;
constexpr std::uint16_t XINPUT_MINOR = 1;

struct Pixels {
  const std::uint32_t* argb = nullptr;  // premultiplied, alpha topmost
  std::size_t count = 0;
};

// None if the reply is shorter than the image that it tells of.
Pixels pixels_of(const xcb_xfixes_get_cursor_image_reply_t& image) {
  const std::size_t count = std::size_t{image.width} * image.height;
  if (count > image.length) return {};
  return {xcb_xfixes_get_cursor_image_cursor_image(&image), count};
}

bool is_blank(const Pixels& pixels) {
  return std::all_of(pixels.argb, pixels.argb + pixels.count,
                     [](std::uint32_t pixel) { return pixel >> 24 == 0; });
}

}  // namespace

bool X11Pointer::open(const x11::Monitor& monitor) {
  monitor_ = monitor;
  if (!connection_.screen()) {
    hlog("video: cannot connect to the X display for the pointer");
    return false;
  }
  const auto xfixes = x11::own(xcb_xfixes_query_version_reply(
      connection_, xcb_xfixes_query_version(connection_, 2, 0), nullptr));
  const auto xfixes_event = connection_.first_event(&xcb_xfixes_id);
  if (!xfixes || !xfixes_event) {
    hlog("video: the X server lacks XFIXES");
    return false;
  }
  xfixes_event_ = *xfixes_event;
  const auto* xinput = xcb_get_extension_data(connection_, &xcb_input_id);
  if (xinput && xinput->present) {
    const auto version = x11::own(xcb_input_xi_query_version_reply(
        connection_, xcb_input_xi_query_version(connection_, XINPUT_MAJOR, XINPUT_MINOR), nullptr));
    if (version && version->major_version >= XINPUT_MAJOR) xinput_opcode_ = xinput->major_opcode;
  }
  if (!xinput_opcode_) hlog("video: the X server lacks XInput 2; pointer motion is sampled");
  select_events();
  return ok();
}

void X11Pointer::select_events() {
  const xcb_window_t root = connection_.screen()->root;
  xcb_xfixes_select_cursor_input(connection_, root, XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR);
  if (xinput_opcode_) {
    struct {
      xcb_input_event_mask_t head{XCB_INPUT_DEVICE_ALL_MASTER, 1};
      std::uint32_t mask = XCB_INPUT_XI_EVENT_MASK_RAW_MOTION;
    } const wanted;
    xcb_input_xi_select_events(connection_, root, 1, &wanted.head);
  }
  xcb_flush(connection_);
}

void X11Pointer::read_events() {
  while (const auto event = x11::own(xcb_poll_for_event(connection_))) {
    const std::uint8_t type = event->response_type & 0x7F;
    if (type == xfixes_event_ + XCB_XFIXES_CURSOR_NOTIFY) {
      image_changed_ = true;
    } else if (type == XCB_GE_GENERIC) {
      const auto& generic = reinterpret_cast<const xcb_ge_generic_event_t&>(*event);
      if (generic.extension == xinput_opcode_ && generic.event_type == XCB_INPUT_RAW_MOTION)
        moved_ = true;
    }
  }
}

bool X11Pointer::look_is_fresh() const {
  return lund_now_us() - looked_us_ < LOOK_INTERVAL_US;
}

std::optional<std::uint64_t> X11Pointer::next_look_us() const {
  if (!moved_) return std::nullopt;
  return looked_us_ + LOOK_INTERVAL_US;
}

void X11Pointer::look() {
  // Before the question: motion from here on is told of anew.
  moved_ = false;
  looked_us_ = lund_now_us();
  const auto reply = x11::own(xcb_query_pointer_reply(
      connection_, xcb_query_pointer(connection_, connection_.screen()->root), nullptr));
  if (!reply) return;
  position_ = reply->same_screen ? DesktopPoint{reply->root_x, reply->root_y}
                                 : DesktopPoint{NOWHERE, NOWHERE};
}

void X11Pointer::fetch_image() {
  image_changed_ = false;
  image_ = x11::own(xcb_xfixes_get_cursor_image_reply(
      connection_, xcb_xfixes_get_cursor_image(connection_), nullptr));
  // There is none before the first program has set one.
  blank_ = !image_ || is_blank(pixels_of(*image_));
  if (blank_) image_.reset();
}

bool X11Pointer::collect() {
  read_events();
  image_.reset();
  if (image_changed_) fetch_image();
  if (moved_ && !look_is_fresh()) look();

  Place place = told_.value_or(Place{});
  const DesktopPoint here{position_.x - monitor_.x, position_.y - monitor_.y};
  place.visible =
      !blank_ && here.x >= 0 && here.x < monitor_.width && here.y >= 0 && here.y < monitor_.height;
  if (place.visible) place.position = here;

  update_ = {};
  update_.moved = told_ != place;
  update_.visible = place.visible;
  update_.position = place.position;
  update_.anchor = PointerAnchor::HotPoint;
  update_.shape_bytes = image_ ? pixels_of(*image_).count * sizeof(std::uint32_t) : 0;
  told_ = place;
  return update_.moved || update_.shape_bytes != 0;
}

bool X11Pointer::read_pointer_shape(std::uint8_t* buffer, PointerShape* out) {
  if (!image_) return false;
  const Pixels pixels = pixels_of(*image_);
  cursor_unpremultiply(pixels.argb, pixels.count, buffer);
  const std::int32_t pitch = image_->width * static_cast<std::int32_t>(sizeof(std::uint32_t));
  *out = {CURSOR_COLOUR, pixels.count * sizeof(std::uint32_t),
          image_->width, image_->height,
          pitch,         image_->xhot,
          image_->yhot};
  return true;
}

bool X11Pointer::system_pointer(DesktopPoint* out) {
  if (!look_is_fresh()) look();
  *out = position_;
  return ok();
}
