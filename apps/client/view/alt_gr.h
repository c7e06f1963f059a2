// AltGr, the right Alt of many layouts. To the host it goes as the key that was pressed, the right
// Alt, which is AltGr there by the host's layout. Windows calls AltGr what it calls Ctrl+Alt, and
// so puts a Left Ctrl ahead of it, down and up, that no hand has pressed; at the host that would be
// one: a program there would take AltGr+Q for Ctrl+AltGr+Q. It is kept from the windows.
#pragma once

#include <cstdint>

// A key as a low-level hook of Windows is shown it.
struct HookedKey {
  std::uint32_t scan_code = 0;
  bool up = false;
};

// Whether a key is to go no further. `ours`: it would go to a window of this program;
// `ctrl_is_down`: the Left Ctrl is, for Windows.
bool is_alt_grs_ctrl_to_drop(const HookedKey& key, bool ours, bool ctrl_is_down);

// Drops that Left Ctrl for as long as it is wanted. One at a time, of the thread that SDL's video
// was started on. Does nothing where a desktop makes nothing up.
class AltGrFilter {
 public:
  AltGrFilter() = default;
  ~AltGrFilter() { want(false); }
  AltGrFilter(const AltGrFilter&) = delete;
  AltGrFilter& operator=(const AltGrFilter&) = delete;

  // To be said again after every change of SDL's keyboard grab, and now and then, as with
  // renew_keyboard_grab.
  void want(bool wanted);
};
