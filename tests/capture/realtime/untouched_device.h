// A device of a GPU's of which nothing may be asked: the test fails when something is.
#pragma once

#include <gtest/gtest.h>

#include "capture/encoder_surfaces.h"

class UntouchedDevice final : public EncoderDevice {
 public:
  void fill(AVHWDeviceContext*) override { ADD_FAILURE(); }
  void fill(AVHWFramesContext*) override { ADD_FAILURE(); }
  std::unique_ptr<SurfaceReadBack> make_read_back(int, int, std::uint32_t*) override {
    ADD_FAILURE();
    return nullptr;
  }
};
