// Another mode of the primary display, for as long as it lives.
#pragma once

#include "control/windows/handles.h"

class DisplayModeChange {
 public:
  DisplayModeChange(DWORD width, DWORD height) {
    DEVMODEW mode = {};
    mode.dmSize = sizeof mode;
    mode.dmFields = DM_PELSWIDTH | DM_PELSHEIGHT;
    mode.dmPelsWidth = width;
    mode.dmPelsHeight = height;
    // Of this run alone: nothing of it in the registry, where the mode before stays.
    changed_ = ChangeDisplaySettingsExW(nullptr, &mode, nullptr, CDS_FULLSCREEN, nullptr) ==
               DISP_CHANGE_SUCCESSFUL;
  }
  ~DisplayModeChange() { ChangeDisplaySettingsExW(nullptr, nullptr, nullptr, 0, nullptr); }
  DisplayModeChange(const DisplayModeChange&) = delete;
  DisplayModeChange& operator=(const DisplayModeChange&) = delete;

  bool changed() const { return changed_; }

 private:
  bool changed_;
};
