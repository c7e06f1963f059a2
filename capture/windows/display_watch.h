// Finds displays again and again, as a polled capture does with each picture. A whole enumeration
// makes a DXGI factory, which can take longer than a frame; one is made when what has been found no
// longer holds. Every output that shows a part of the desktop is a monitor of GDI's too, so that
// holds while GDI's view is the same and the factory knows of no change of adapters.
//
// One thread at a time.
#pragma once

#include <string>
#include <vector>

#include "capture/display.h"
#include "capture/windows/direct3d.h"

class DisplayWatch {
 public:
  explicit DisplayWatch(const Direct3d& api = system_direct3d()) : api_(api) {}  // outlives it

  bool find(const std::string& device, DisplayInfo* out);  // as find_display

 private:
  bool current(const std::vector<DisplayInfo>& monitors) const;

  const Direct3d& api_;
  ComPtr<IDXGIFactory1> factory_;
  std::vector<DisplayInfo> monitors_;  // GDI's view when `displays_` was made
  std::vector<DisplayInfo> displays_;
};
