// The pointer of an X server as one monitor's capture is told of it. The server says when its image
// changes (XFixes) and when a device moves it (raw motion of XInput 2, which other programs' grabs
// don't keep from us); where it is then is asked for. A pointer that a program has moved, which no
// event tells of, is found by the look that each pass of the capture takes, as is every motion
// where XInput 2 lacks.
//
// X has no word for a hidden pointer: programs give it an image without a visible pixel, and that
// counts as hidden here. One that a program hides by XFixes can't be told from one that shows.
//
// It has a connection of its own, so that motion wakes the capture at most every LOOK_INTERVAL_US,
// and damage that the capture doesn't wait for not at all. One thread.
#pragma once

#include <xcb/xfixes.h>

#include <limits>
#include <optional>

#include "capture/linux/x11.h"
#include "capture/pointer_source.h"

class X11Pointer final : public PointerSource {
 public:
  bool open(const x11::Monitor& monitor);  // logs what fails
  bool ok() const { return connection_.ok(); }

  int descriptor() const { return xcb_get_file_descriptor(connection_); }
  // Until when events need not wake the thread, as what they say will be asked for then; nothing
  // while there is no such time.
  std::optional<std::uint64_t> next_look_us() const;

  // Makes everything since the last time the update of now. False if there is nothing.
  bool collect();

  PointerUpdate pointer_update() override { return update_; }
  bool read_pointer_shape(std::uint8_t* buffer, PointerShape* out) override;
  bool system_pointer(DesktopPoint* out) override;

 private:
  void select_events();
  void read_events();
  bool look_is_fresh() const;
  void look();
  void fetch_image();

  // No place of this screen: where the pointer is while it is on another of the server's.
  static constexpr std::int32_t NOWHERE = std::numeric_limits<std::int32_t>::min();

  x11::Connection connection_;
  x11::Monitor monitor_;
  std::uint8_t xfixes_event_ = 0;
  std::optional<std::uint8_t> xinput_opcode_;  // none: without XInput 2

  bool image_changed_ = true;                              // since it was fetched
  bool blank_ = true;                                      // the image has no visible pixel
  x11::Reply<xcb_xfixes_get_cursor_image_reply_t> image_;  // of `update_`, if it has a new one

  bool moved_ = true;  // a device has moved it since it was looked at
  DesktopPoint position_{NOWHERE, NOWHERE};
  std::uint64_t looked_us_ = 0;

  struct Place {
    bool visible = false;
    DesktopPoint position;  // where it was last visible
    bool operator==(const Place&) const = default;
  };
  std::optional<Place> told_;
  PointerUpdate update_;
};
