// What a window shows at a moment, composed from what is known: two scenes that are equal look the
// same, so a window is drawn anew only when its scene has changed. Pure; the window's thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/client/session_sinks.h"
#include "apps/client/view/geometry.h"
#include "apps/client/view/pointer_view.h"

// What all windows of a session have in common.
struct SharedView {
  std::string host;
  std::string key_label;  // of the release key
  SessionState session = SessionState::Connecting;
  std::string session_text;
  bool statistics = false;
  bool help = false;
  bool relative = false;            // the mouse is captured
  std::uint64_t hint_until_us = 0;  // the line that says how to get help
  std::string note;                 // what a command has done
  std::uint64_t note_until_us = 0;
};

// What one window knows.
struct ScreenView {
  ScreenState state = ScreenState::Waiting;
  std::string text;
  ViewSize window;
  ViewSize picture;  // empty before the first
  std::uint64_t picture_serial = 0;
  PointerView pointer;
  bool mouse_over = false;   // the mouse is in the picture
  bool image_known = false;  // of the pointer's shape
  std::vector<std::string> statistics;
};

struct Scene {
  ViewSize window;
  ViewRect shown;  // the picture's place; empty without one
  std::uint64_t picture_serial = 0;
  bool dimmed = false;  // the picture is old
  bool own_pointer = true;
  bool pointer_painted = false;
  ViewPoint pointer;
  std::uint32_t pointer_shape = 0;
  std::vector<std::string> statistics;
  std::vector<std::string> banner;  // in the middle
  std::vector<std::string> footer;  // at the bottom
  bool operator==(const Scene&) const = default;
};

Scene compose(const SharedView& shared, const ScreenView& screen, std::uint64_t now_us);

// When the scene changes by the passing of time alone; UINT64_MAX: never.
std::uint64_t changes_at_us(const SharedView& shared, const ScreenView& screen,
                            std::uint64_t now_us);

// How far two positions may lie apart that mean the same pixel of the host: its pixels may be up to
// twice as wide as the picture's.
WirePoint pixel_tolerance(ViewSize picture);
