// FFmpeg's objects under RAII.
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace ffmpeg {

struct ContextFree {
  void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct FrameFree {
  void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct BufferUnref {
  void operator()(AVBufferRef* p) const { av_buffer_unref(&p); }
};
struct ScalerFree {
  void operator()(SwsContext* p) const { sws_freeContext(p); }
};
using ContextPtr = std::unique_ptr<AVCodecContext, ContextFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using BufferPtr = std::unique_ptr<AVBufferRef, BufferUnref>;
using ScalerPtr = std::unique_ptr<SwsContext, ScalerFree>;

// The colours of a converter between I420 and BGRA. Rebuilds its tables: once for a size.
inline void set_bt709_full_range(SwsContext* scaler) {
  constexpr int FULL_RANGE = 1;
  constexpr int ONE = 1 << 16;  // contrast and saturation
  const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
  sws_setColorspaceDetails(scaler, bt709, FULL_RANGE, bt709, FULL_RANGE, 0, ONE, ONE);
}

}  // namespace ffmpeg
