// What an encoder that takes GPU surfaces needs of the platform's device. A capture source whose
// pictures are GPU surfaces provides one; a platform without such a source provides none. Used on
// the capture thread alone.
#pragma once

#include <cstdint>
#include <memory>

struct AVHWDeviceContext;
struct AVHWFramesContext;

// A surface that the converter draws the next picture into: the platform's texture object and the
// slice of it.
struct EncoderSurface {
  void* texture = nullptr;
  unsigned subresource = 0;
};

// A surface of the device and the way of its NV12 pixels into system memory, for encoders that take
// nothing else. Errors are the platform's 32-bit codes.
class SurfaceReadBack {
 public:
  virtual ~SurfaceReadBack() = default;

  virtual EncoderSurface render_surface() = 0;

  // Copies what was drawn and maps it: `height` rows of luma, then height / 2 rows of interleaved
  // chroma, `row_pitch` bytes apart. Valid until unmap, which only a successful map needs.
  virtual bool map(const std::uint8_t** pixels, int* row_pitch, std::uint32_t* error) = 0;
  virtual void unmap() = 0;
};

class EncoderDevice {
 public:
  virtual ~EncoderDevice() = default;

  // Puts the device, with a reference of its own, into a D3D11VA device context.
  virtual void fill(AVHWDeviceContext* context) = 0;

  // Makes the pool's surfaces such that the converter can draw into them.
  virtual void fill(AVHWFramesContext* context) = 0;

  // Null on failure, with *error set.
  virtual std::unique_ptr<SurfaceReadBack> make_read_back(int width, int height,
                                                          std::uint32_t* error) = 0;
};
