// One monitor of an X server, captured into a shared-memory segment that the server writes and the
// encoder's converter reads. XDamage tells of changes; nothing is copied from the server before the
// pipeline is about to encode, so that what is encoded is as new as can be and any number of
// changes before that cost one copy.
#include "capture/linux/x11_source.h"

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>
#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xfixes.h>

#include <algorithm>

#include "capture/linux/x11.h"
#include "capture/linux/x11_pointer.h"
#include "connection/clock.h"
#include "control/linux/deadline.h"
#include "control/log.h"

namespace {

constexpr int BYTES_PER_PIXEL = 4;
constexpr std::uint32_t ALL_PLANES = ~0u;
constexpr std::uint32_t SHM_WITH_DESCRIPTORS = 2;  // minor version of MIT-SHM
// With more rectangles than this reported of other monitors, their damage is cleared as well, since
// each clearing of ours has the server report what remains.
constexpr int FOREIGN_RECTANGLES_KEPT = 64;

// Monitors that are set up by hand change without an event, so the server is asked now and then.
constexpr std::uint64_t GEOMETRY_CHECK_US = 1'000'000;

constexpr SourceTraits TRAITS{"X11 CPU", true, false};

// Memory that is shared by its descriptor.
class SharedPicture {
 public:
  ~SharedPicture() {
    if (pixels_) munmap(pixels_, size_);
  }
  // The descriptor to pass on, -1 on failure. The caller owns it.
  int create(std::size_t size) {
    const int fd = memfd_create("lunderhaze-picture", MFD_CLOEXEC);
    if (fd < 0) return -1;
    void* mapped = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(size)) == 0) {
      mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    if (mapped == MAP_FAILED) {
      close(fd);
      return -1;
    }
    pixels_ = static_cast<std::uint8_t*>(mapped);
    size_ = size;
    return fd;
  }
  const std::uint8_t* pixels() const { return pixels_; }
  std::size_t size() const { return size_; }

 private:
  std::uint8_t* pixels_ = nullptr;
  std::size_t size_ = 0;
};

// Pictures are taken as they are, so the root window must hold what the converter reads: 32 bits a
// pixel in the order blue, green, red, unused.
bool pixels_are_bgrx(const x11::Connection& connection) {
  const xcb_setup_t* setup = xcb_get_setup(connection);
  const xcb_screen_t* screen = connection.screen();
  bool wide = false;
  for (auto it = xcb_setup_pixmap_formats_iterator(setup); it.rem > 0; xcb_format_next(&it)) {
    if (it.data->depth == screen->root_depth) wide = it.data->bits_per_pixel == 32;
  }
  if (!wide || setup->image_byte_order != XCB_IMAGE_ORDER_LSB_FIRST) return false;
  for (auto depth = xcb_screen_allowed_depths_iterator(screen); depth.rem > 0;
       xcb_depth_next(&depth)) {
    for (auto visual = xcb_depth_visuals_iterator(depth.data); visual.rem > 0;
         xcb_visualtype_next(&visual)) {
      if (visual.data->visual_id != screen->root_visual) continue;
      return visual.data->red_mask == 0xFF0000 && visual.data->green_mask == 0xFF00 &&
             visual.data->blue_mask == 0xFF;
    }
  }
  return false;
}

class X11Source final : public CaptureSource {
 public:
  const SourceTraits& traits() const override { return TRAITS; }
  bool open(const CaptureTarget& target) override;
  bool subscribe(DisplayInfo* display, SubscribeFailure* failure) override;
  bool subscribed() const override { return damage_ != XCB_NONE; }
  void unsubscribe() override;
  AcquireResult acquire(std::uint32_t wait_ms, WakeEvent& wake, AcquiredPicture* out) override;
  bool hold() override { return held_ = true; }
  bool has_picture() const override { return held_; }
  bool picture(MemoryPicture* out) override;
  PointerSource* pointer() override { return &pointer_; }

 private:
  bool query_extensions();
  bool attach_segment();
  bool read_geometry(x11::Monitor* out) const;
  bool lost();
  void read_events();
  void note_damage(const xcb_damage_notify_event_t& event, std::uint32_t sequence);
  bool grab();
  void wait(std::uint64_t deadline_us, const WakeEvent& wake) const;

  x11::Connection connection_;
  X11Pointer pointer_;
  SharedPicture shared_;
  x11::Monitor monitor_;
  std::uint8_t damage_event_ = 0;
  std::uint8_t randr_event_ = 0;
  xcb_shm_seg_t segment_ = XCB_NONE;
  xcb_damage_damage_t damage_ = XCB_NONE;
  xcb_xfixes_region_t region_ = XCB_NONE;  // the monitor's rectangle
  std::uint32_t cleared_sequence_ = 0;     // the request that last cleared the damage
  int foreign_rectangles_ = 0;             // reported since then of other monitors
  bool stale_ = true;                      // the screen has changed since the segment was filled
  bool reported_ = false;                  // and acquire has said so
  bool rearranged_ = false;                // the server has said that outputs or monitors change
  std::uint64_t geometry_checked_us_ = 0;
  bool grab_failed_ = false;
  bool held_ = false;
};

bool X11Source::query_extensions() {
  const auto shm = x11::own(
      xcb_shm_query_version_reply(connection_, xcb_shm_query_version(connection_), nullptr));
  if (!shm || (shm->major_version == 1 && shm->minor_version < SHM_WITH_DESCRIPTORS)) {
    hlog("video: the X server can't share pictures by descriptor (MIT-SHM 1.2)");
    return false;
  }
  const auto damage = x11::own(xcb_damage_query_version_reply(
      connection_, xcb_damage_query_version(connection_, 1, 1), nullptr));
  const auto xfixes = x11::own(xcb_xfixes_query_version_reply(
      connection_, xcb_xfixes_query_version(connection_, 2, 0), nullptr));
  const auto damage_event = connection_.first_event(&xcb_damage_id);
  const auto randr_event = connection_.first_event(&xcb_randr_id);
  if (!damage || !xfixes || !damage_event || !randr_event) {
    hlog("video: the X server lacks DAMAGE, XFIXES or RANDR");
    return false;
  }
  damage_event_ = *damage_event;
  randr_event_ = *randr_event;
  return true;
}

bool X11Source::read_geometry(x11::Monitor* out) const {
  for (const x11::Monitor& monitor : x11::monitors(connection_)) {
    if (monitor.name != monitor_.name) continue;
    *out = monitor;
    return true;
  }
  return false;
}

bool X11Source::open(const CaptureTarget& target) {
  if (!connection_.ok() || !connection_.screen()) {
    hlog("video: cannot connect to the X display");
    return false;
  }
  if (x11::is_xwayland(connection_)) {
    hlog("video: this is a Wayland session, whose screens cannot be captured");
    return false;
  }
  if (!pixels_are_bgrx(connection_)) {
    hlog("video: the X screen isn't of 24-bit colour in 32-bit pixels");
    return false;
  }
  monitor_.name = target.display.device;
  if (!query_extensions()) return false;
  if (!read_geometry(&monitor_)) {
    hlog("video: display %s is gone", target.display.device.c_str());
    return false;
  }
  if (!attach_segment()) {
    hlog("video: cannot share a picture of %dx%d with the X server", monitor_.width,
         monitor_.height);
    return false;
  }
  if (!pointer_.open(monitor_)) return false;
  hlog("video: X11 CPU capture %dx%d at (%ld,%ld)", monitor_.width, monitor_.height,
       static_cast<long>(monitor_.x), static_cast<long>(monitor_.y));
  return true;
}

bool X11Source::attach_segment() {
  if (monitor_.width < 1 || monitor_.height < 1) return false;
  const int fd = shared_.create(static_cast<std::size_t>(monitor_.width) *
                                static_cast<std::size_t>(monitor_.height) * BYTES_PER_PIXEL);
  if (fd < 0) return false;
  segment_ = xcb_generate_id(connection_);
  // XCB closes the descriptor once it has been sent.
  const auto error = x11::own(
      xcb_request_check(connection_, xcb_shm_attach_fd_checked(connection_, segment_, fd, 0)));
  return !error && connection_.ok();
}

bool X11Source::subscribe(DisplayInfo* display, SubscribeFailure* failure) {
  const xcb_window_t root = connection_.screen()->root;
  xcb_randr_select_input(connection_, root,
                         XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE | XCB_RANDR_NOTIFY_MASK_CRTC_CHANGE |
                             XCB_RANDR_NOTIFY_MASK_OUTPUT_CHANGE);
  if (region_ == XCB_NONE) {
    region_ = xcb_generate_id(connection_);
    const xcb_rectangle_t rectangle{
        static_cast<std::int16_t>(monitor_.x), static_cast<std::int16_t>(monitor_.y),
        static_cast<std::uint16_t>(monitor_.width), static_cast<std::uint16_t>(monitor_.height)};
    xcb_xfixes_create_region(connection_, region_, 1, &rectangle);
  }
  const xcb_damage_damage_t damage = xcb_generate_id(connection_);
  // Each area is reported once until it is cleared, so that the other monitors fall silent.
  const auto error = x11::own(xcb_request_check(
      connection_, xcb_damage_create_checked(connection_, damage, root,
                                             XCB_DAMAGE_REPORT_LEVEL_DELTA_RECTANGLES)));
  if (error || !connection_.ok()) {
    failure->code = error ? error->error_code : 0;
    failure->text = "DamageCreate failed (" + std::to_string(failure->code) + ")";
    return false;
  }
  damage_ = damage;
  stale_ = true;
  reported_ = grab_failed_ = false;
  display->left = monitor_.x;
  display->top = monitor_.y;
  display->right = monitor_.x + monitor_.width;
  display->bottom = monitor_.y + monitor_.height;
  return true;
}

void X11Source::unsubscribe() {
  if (damage_ != XCB_NONE) xcb_damage_destroy(connection_, damage_);
  damage_ = XCB_NONE;
}

AcquireResult X11Source::acquire(std::uint32_t wait_ms, WakeEvent& wake, AcquiredPicture* out) {
  const std::uint64_t deadline_us = lund_now_us() + std::uint64_t{wait_ms} * 1000;
  for (bool waited = false;; waited = true) {
    read_events();
    if (!connection_.ok() || !pointer_.ok()) {
      hlog("video: the X server is gone");
      return AcquireResult::Gone;
    }
    if (lost()) {
      hlog("video: X11 capture lost (%s was moved, resized or removed); recreating",
           monitor_.name.c_str());
      return AcquireResult::Lost;
    }
    if (grab_failed_) {
      hlog("video: X11 picture of %s failed", monitor_.name.c_str());
      return AcquireResult::Busy;
    }
    const bool pointer_news = pointer_.collect();
    if (stale_ && !reported_) {
      reported_ = true;
      *out = {lund_now_us(), monitor_.width, monitor_.height};
      return AcquireResult::Picture;
    }
    if (pointer_news) return AcquireResult::PointerOnly;
    // A wake-up that is set ends the wait as time does.
    if (waited && (lund_now_us() >= deadline_us || wake.wait(0))) return AcquireResult::TimeOut;
    if (wait_ms == 0) return AcquireResult::TimeOut;
    wait(deadline_us, wake);
  }
}

// While a change waits to be fetched, further ones need not wake the thread; nor motion while the
// pointer is about to be looked at.
void X11Source::wait(std::uint64_t deadline_us, const WakeEvent& wake) const {
  xcb_flush(connection_);
  const auto look_us = pointer_.next_look_us();
  const auto unless = [](bool known) { return static_cast<short>(known ? 0 : POLLIN); };
  pollfd polled[] = {{xcb_get_file_descriptor(connection_), unless(stale_), 0},
                     {pointer_.descriptor(), unless(look_us.has_value()), 0},
                     {static_cast<int>(wake.native_handle()), POLLIN, 0}};
  const timespec left = time_left(std::min(deadline_us, look_us.value_or(deadline_us)));
  ppoll(polled, std::size(polled), &left, nullptr);
}

bool X11Source::lost() {
  const std::uint64_t now_us = lund_now_us();
  if (!rearranged_ && now_us - geometry_checked_us_ < GEOMETRY_CHECK_US) return false;
  rearranged_ = false;
  geometry_checked_us_ = now_us;
  x11::Monitor now;
  return !read_geometry(&now) || now.x != monitor_.x || now.y != monitor_.y ||
         now.width != monitor_.width || now.height != monitor_.height;
}

void X11Source::read_events() {
  while (const auto event = x11::own(xcb_poll_for_event(connection_))) {
    const std::uint8_t type = event->response_type & 0x7F;
    if (type == damage_event_ + XCB_DAMAGE_NOTIFY) {
      note_damage(reinterpret_cast<const xcb_damage_notify_event_t&>(*event), event->full_sequence);
    } else if (type == randr_event_ + XCB_RANDR_SCREEN_CHANGE_NOTIFY ||
               type == randr_event_ + XCB_RANDR_NOTIFY) {
      rearranged_ = true;
    }
  }
}

void X11Source::note_damage(const xcb_damage_notify_event_t& event, std::uint32_t sequence) {
  // Of before the damage was last cleared: in the picture already.
  if (event.damage != damage_ || static_cast<std::int32_t>(sequence - cleared_sequence_) < 0)
    return;
  const bool inside =
      event.area.x < monitor_.x + monitor_.width && event.area.x + event.area.width > monitor_.x &&
      event.area.y < monitor_.y + monitor_.height && event.area.y + event.area.height > monitor_.y;
  if (inside) {
    stale_ = true;
  } else {
    ++foreign_rectangles_;
  }
}

bool X11Source::grab() {
  const bool everything = foreign_rectangles_ > FOREIGN_RECTANGLES_KEPT;
  // Cleared first: what is drawn after it is reported again, and at worst is in the picture
  // already.
  if (damage_ != XCB_NONE) {
    cleared_sequence_ =
        xcb_damage_subtract(connection_, damage_, everything ? XCB_NONE : region_, XCB_NONE)
            .sequence;
    foreign_rectangles_ = 0;
  }
  const auto cookie = xcb_shm_get_image(
      connection_, connection_.screen()->root, static_cast<std::int16_t>(monitor_.x),
      static_cast<std::int16_t>(monitor_.y), static_cast<std::uint16_t>(monitor_.width),
      static_cast<std::uint16_t>(monitor_.height), ALL_PLANES, XCB_IMAGE_FORMAT_Z_PIXMAP, segment_,
      0);
  xcb_generic_error_t* error = nullptr;
  const auto reply = x11::own(xcb_shm_get_image_reply(connection_, cookie, &error));
  const auto owned_error = x11::own(error);
  if (!reply) {
    // A screen that has become smaller refuses the rectangle before it tells of its change.
    rearranged_ = grab_failed_ = true;
    return false;
  }
  stale_ = reported_ = false;
  return true;
}

bool X11Source::picture(MemoryPicture* out) {
  if (stale_ && !grab()) return false;
  *out = {shared_.pixels(), shared_.size(), monitor_.width, monitor_.height,
          monitor_.width * BYTES_PER_PIXEL};
  return true;
}

}  // namespace

std::unique_ptr<CaptureSource> make_x11_source() {
  return std::make_unique<X11Source>();
}
