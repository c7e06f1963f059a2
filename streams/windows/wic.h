// The Windows Imaging Component for the length of a piece of work. Whoever works with it often has
// a ComThread of its own, so that the libraries stay loaded between.
#pragma once

#include "control/windows/com.h"
// After what com.h includes.
#include <wincodec.h>

#include "streams/bitmap.h"

class Wic {
 public:
  Wic();
  explicit operator bool() const { return factory_ != nullptr; }
  IWICImagingFactory* operator->() const { return factory_.Get(); }

 private:
  // The factory is made for any kind of apartment; a thread that is in another than this stays
  // there.
  ComThread com_{COINIT_APARTMENTTHREADED};
  ComPtr<IWICImagingFactory> factory_;
};

// The whole picture, as 8 bits a channel with straight alpha. False on any failure; memory throws.
bool copy_source(IWICBitmapSource* source, Image* out);
