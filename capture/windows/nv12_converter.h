// The GPU's video processor as a converter: a texture of the desktop's pixels, scaled, into NV12
// surfaces of the encoder, BT.709 full range. Used on the capture thread alone.
#pragma once

#include <cstdint>
#include <map>
#include <utility>

#include "capture/encoder_surfaces.h"
#include "capture/windows/display_device.h"

class Nv12Converter {
 public:
  struct Size {
    UINT width = 0;
    UINT height = 0;
  };

  // Configures the conversion of `source` to pictures of the size. False with a line in the log;
  // what was there before is gone in any case.
  bool open(const DisplayDevice& device, ID3D11Texture2D* source, Size encoded, UINT fps);
  void close();
  bool ready() const { return ready_; }

  // The texture's pixels, as they are now, into the surface. False with a line in the log.
  bool draw(const EncoderSurface& surface);
  void forget_surfaces() { output_views_.clear(); }

 private:
  HRESULT create(const DisplayDevice& device, ID3D11Texture2D* source, Size from, Size to, UINT fps,
                 const char** operation);
  void configure(Size from, Size to);
  void set_colours();
  ID3D11VideoProcessorOutputView* view_of(const EncoderSurface& surface);

  ComPtr<ID3D11VideoDevice> video_device_;
  ComPtr<ID3D11VideoContext> video_context_;
  ComPtr<ID3D11VideoProcessorEnumerator> enumerator_;
  ComPtr<ID3D11VideoProcessor> processor_;
  ComPtr<ID3D11VideoProcessorInputView> input_view_;
  // One view for each encoder surface met so far: an encoder has few and they come round again.
  std::map<std::pair<void*, unsigned>, ComPtr<ID3D11VideoProcessorOutputView>> output_views_;
  bool ready_ = false;
};
