#include "capture/encoder.h"

#include <algorithm>
#include <cstring>

#include "capture/encoder_internal.h"
#include "connection/clock.h"
#include "control/log.h"
#include "control/sysinfo.h"
#include "media/cpu_codec.h"
#include "media/cpu_frame.h"

extern "C" {
#include <libavutil/cpu.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/hwcontext.h>
#include <libavutil/log.h>
}

using namespace encoder_internal;

namespace {

constexpr int MAX_SIZE = 8192;
constexpr int MAX_FPS = 240;
constexpr int MAX_CPU_THREADS = 4;
constexpr int PACKET_WAIT_MS = 100;
constexpr int PLANE_ALIGNMENT_BYTES = 64;
constexpr int H264_HIGH = 100;
constexpr int H264_CONSTRAINED_BASELINE = 578;
constexpr int HEVC_MAIN = 1;

bool valid(const EncoderSettings& s) {
  const auto size_ok = [](int v) { return v > 0 && v <= MAX_SIZE && v % 2 == 0; };
  return size_ok(s.width) && size_ok(s.height) && s.fps >= 1 && s.fps <= MAX_FPS &&
         s.bitrate_kbps > 0;
}

void set_rate(AVCodecContext* ctx, const EncoderSettings& s) {
  ctx->bit_rate = std::int64_t{s.bitrate_kbps} * 1000;
  ctx->rc_max_rate = ctx->bit_rate;
  ctx->rc_buffer_size =
      static_cast<int>(std::min<std::int64_t>(vbv_bits(s.bitrate_kbps, s.fps), INT32_MAX));
}

// A frame and a codec context call their colour fields alike.
template <typename T>
void set_colours(T* target) {
  target->color_primaries = AVCOL_PRI_BT709;
  target->color_trc = AVCOL_TRC_BT709;
  target->colorspace = AVCOL_SPC_BT709;
  target->color_range = AVCOL_RANGE_JPEG;
}

const char* path_text(FramePath path) {
  switch (path) {
    case FramePath::ZeroCopy:
      return "zero-copy D3D11 frames";
    case FramePath::ReadBack:
      return "CPU read-back NV12";
    case FramePath::Cpu:
      return "CPU I420";
  }
  return "";
}

}  // namespace

struct VideoEncoder::Codec {
  FramePath path = FramePath::Cpu;
  BufferPtr hw_device;
  BufferPtr hw_frames;  // non-null: the zero-copy path
  std::unique_ptr<SurfaceReadBack> read_back;
  ContextPtr ctx;
  FramePtr frame;
  PacketPtr packet;
  ScalerPtr scaler;
  int scaler_width = 0;  // of the source that `scaler` was made for
  int scaler_height = 0;

  int make_frame_pool(EncoderDevice* device, const EncoderSettings& settings);
  bool make_frame(const EncoderSettings& settings);
  bool make_scaler(int source_width, int source_height);
};

// The device and a pool of NV12 surfaces that grows on demand, both bound to the context.
int VideoEncoder::Codec::make_frame_pool(EncoderDevice* device, const EncoderSettings& settings) {
  hw_device.reset(av_hwdevice_ctx_alloc(AV_HWDEVICE_TYPE_D3D11VA));
  if (!hw_device) return AVERROR(ENOMEM);
  device->fill(reinterpret_cast<AVHWDeviceContext*>(hw_device->data));
  if (const int result = av_hwdevice_ctx_init(hw_device.get()); result < 0) return result;

  hw_frames.reset(av_hwframe_ctx_alloc(hw_device.get()));
  if (!hw_frames) return AVERROR(ENOMEM);
  auto* pool = reinterpret_cast<AVHWFramesContext*>(hw_frames->data);
  pool->format = AV_PIX_FMT_D3D11;
  pool->sw_format = AV_PIX_FMT_NV12;
  pool->width = settings.width;
  pool->height = settings.height;
  pool->initial_pool_size = 0;
  device->fill(pool);
  if (const int result = av_hwframe_ctx_init(hw_frames.get()); result < 0) return result;

  ctx->pix_fmt = AV_PIX_FMT_D3D11;
  ctx->sw_pix_fmt = AV_PIX_FMT_NV12;
  ctx->hw_device_ctx = av_buffer_ref(hw_device.get());
  ctx->hw_frames_ctx = av_buffer_ref(hw_frames.get());
  return ctx->hw_device_ctx && ctx->hw_frames_ctx ? 0 : AVERROR(ENOMEM);
}

bool VideoEncoder::Codec::make_frame(const EncoderSettings& settings) {
  frame.reset(av_frame_alloc());
  packet.reset(av_packet_alloc());
  if (!frame || !packet) return false;
  if (path == FramePath::ZeroCopy) return true;
  frame->format = path == FramePath::Cpu ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_NV12;
  frame->width = settings.width;
  frame->height = settings.height;
  return av_frame_get_buffer(frame.get(), PLANE_ALIGNMENT_BYTES) >= 0;
}

bool VideoEncoder::Codec::make_scaler(int source_width, int source_height) {
  if (scaler && scaler_width == source_width && scaler_height == source_height) return true;
  scaler.reset(sws_getCachedContext(scaler.release(), source_width, source_height, AV_PIX_FMT_BGRA,
                                    frame->width, frame->height, AV_PIX_FMT_YUV420P, SWS_BILINEAR,
                                    nullptr, nullptr, nullptr));
  if (!scaler) return false;
  ffmpeg::set_bt709_full_range(scaler.get());
  scaler_width = source_width;
  scaler_height = source_height;
  return true;
}

// FFmpeg writes to standard error on its own, where each opening of libopenh264 draws two warnings
// that tell nothing; its results are logged here.
VideoEncoder::VideoEncoder() {
  av_log_set_level(AV_LOG_ERROR);
}
VideoEncoder::~VideoEncoder() = default;

bool VideoEncoder::is_open() const {
  return codec_ != nullptr;
}

bool VideoEncoder::open(EncoderDevice* device, const EncoderSettings& settings) {
  close();
  settings_ = settings;
  if (!valid(settings_)) return false;
  const auto chosen = lund_cpu::select_codec(
      settings_.prefer_hevc, device != nullptr, settings_.preferred, settings_.required,
      [&](const lund_cpu::CodecCandidate& candidate) { return try_open(device, candidate.name); });
  if (!chosen) hlog("encoder: no usable %s encoder", device ? "D3D11/NV12" : "CPU I420");
  return chosen.has_value();
}

void VideoEncoder::close() {
  if (codec_ && pts_ > 0)
    hlog("encoder: %s closed: %llu frames, %.2f ms of processor time a frame", name_.c_str(),
         static_cast<unsigned long long>(pts_),
         static_cast<double>(cpu_us_) / static_cast<double>(pts_) / 1e3);
  codec_.reset();
  name_.clear();
}

bool VideoEncoder::try_open(EncoderDevice* device, const std::string& name) {
  const std::uint64_t begin_us = lund_now_us();
  const AVCodec* encoder = avcodec_find_encoder_by_name(name.c_str());
  if (!encoder) {
    hlog("encoder: %s not in this FFmpeg build", name.c_str());
    return false;
  }
  if (encoder->id != AV_CODEC_ID_H264 && encoder->id != AV_CODEC_ID_HEVC) {
    hlog("encoder: %s is not H264 or HEVC", name.c_str());
    return false;
  }
  const bool hevc = encoder->id == AV_CODEC_ID_HEVC;
  if (!device && (hevc || name != "libopenh264")) return false;

  auto codec = std::make_unique<Codec>();
  codec->ctx.reset(avcodec_alloc_context3(encoder));
  AVCodecContext* ctx = codec->ctx.get();
  if (!ctx) return false;
  ctx->width = settings_.width;
  ctx->height = settings_.height;
  ctx->time_base = {1, settings_.fps};
  ctx->framerate = {settings_.fps, 1};
  ctx->max_b_frames = 0;
  set_rate(ctx, settings_);
  ctx->gop_size = gop_size(name);
  ctx->flags |= AV_CODEC_FLAG_LOW_DELAY;
  ctx->chroma_sample_location = AVCHROMA_LOC_LEFT;
  set_colours(ctx);

  const void* formats = nullptr;
  int count = 0;
  avcodec_get_supported_config(ctx, encoder, AV_CODEC_CONFIG_PIX_FORMAT, 0, &formats, &count);
  if (!choose_path(device != nullptr, static_cast<const AVPixelFormat*>(formats), count,
                   &codec->path)) {
    hlog("encoder: %s takes neither D3D11 nor NV12 frames", name.c_str());
    return false;
  }
  ctx->thread_count = device ? 0 : std::clamp(av_cpu_count(), 1, MAX_CPU_THREADS);
  ctx->profile = hevc ? HEVC_MAIN : device ? H264_HIGH : H264_CONSTRAINED_BASELINE;
  ctx->pix_fmt = codec->path == FramePath::Cpu ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_NV12;
  if (codec->path == FramePath::ZeroCopy) {
    if (const int result = codec->make_frame_pool(device, settings_); result < 0) {
      hlog("encoder: %s: D3D11 frame pool failed: %s", name.c_str(), ErrorText(result).text);
      return false;
    }
  }

  AVDictionary* options = nullptr;
  for (const Option& option : family_options(name)) {
    av_dict_set(&options, option.key, option.value, 0);
  }
  const int opened = avcodec_open2(ctx, encoder, &options);
  av_dict_free(&options);
  if (opened < 0) {
    hlog("encoder: %s failed to open: %s", name.c_str(), ErrorText(opened).text);
    return false;
  }
  if (codec->path == FramePath::ReadBack) {
    std::uint32_t error = 0;
    codec->read_back = device->make_read_back(settings_.width, settings_.height, &error);
    if (!codec->read_back) {
      hlog("encoder: %s: NV12 read-back textures failed (0x%08lx)", name.c_str(),
           static_cast<unsigned long>(error));
      return false;
    }
  }
  if (!codec->make_frame(settings_)) return false;

  codec_ = std::move(codec);
  name_ = name;
  is_hevc_ = hevc;
  pts_ = 0;
  cpu_us_ = 0;
  hlog("encoder: %s opened in %.0f ms (%dx%d@%d, %d kbps CBR, VBV 1 frame, %s)", name.c_str(),
       static_cast<double>(lund_now_us() - begin_us) / 1000.0, settings_.width, settings_.height,
       settings_.fps, settings_.bitrate_kbps, path_text(codec_->path));
  return true;
}

bool VideoEncoder::begin_frame(EncoderSurface* surface) {
  if (!codec_ || codec_->path == FramePath::Cpu) return false;
  if (codec_->path == FramePath::ReadBack) {
    *surface = codec_->read_back->render_surface();
    return true;
  }
  AVFrame* frame = codec_->frame.get();
  av_frame_unref(frame);
  if (const int result = av_hwframe_get_buffer(codec_->hw_frames.get(), frame, 0); result < 0) {
    hlog("encoder: no free D3D11 frame: %s", ErrorText(result).text);
    return false;
  }
  surface->texture = frame->data[0];
  surface->subresource = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(frame->data[1]));
  return true;
}

bool VideoEncoder::prepare_cpu_frame(const std::uint8_t* bgra, std::uint64_t size, int width,
                                     int height, int stride) {
  if (!codec_ || codec_->path != FramePath::Cpu || !bgra) return false;
  lund_cpu::FrameLayout layout;
  if (!lund_cpu::make_layout(width, height, stride, size, settings_.width, settings_.height, 0, 0,
                             &layout)) {
    return false;
  }
  if (!codec_->make_scaler(width, height)) return false;
  AVFrame* frame = codec_->frame.get();
  if (av_frame_make_writable(frame) < 0) return false;
  return sws_scale(codec_->scaler.get(), &bgra, &stride, 0, height, frame->data, frame->linesize) ==
         frame->height;
}

bool VideoEncoder::read_back_into_frame() {
  const std::uint8_t* pixels = nullptr;
  int row_pitch = 0;
  std::uint32_t error = 0;
  if (!codec_->read_back->map(&pixels, &row_pitch, &error)) {
    hlog("encoder: staging Map failed (0x%08lx)", static_cast<unsigned long>(error));
    return false;
  }
  AVFrame* frame = codec_->frame.get();
  const bool writable = av_frame_make_writable(frame) >= 0;
  if (writable) {
    const auto copy = [&](int plane, int first_row, int rows) {
      for (int row = 0; row < rows; ++row) {
        std::memcpy(frame->data[plane] + std::ptrdiff_t{row} * frame->linesize[plane],
                    pixels + std::ptrdiff_t{first_row + row} * row_pitch,
                    static_cast<std::size_t>(settings_.width));
      }
    };
    copy(0, 0, settings_.height);
    copy(1, settings_.height, settings_.height / 2);
  }
  codec_->read_back->unmap();
  return writable;
}

bool VideoEncoder::end_frame(bool force_keyframe, std::vector<std::uint8_t>* out,
                             bool* is_keyframe) {
  // Encoders have threads of their own, so that the calling thread's time alone would say little.
  const std::uint64_t before_us = process_cpu_us();
  const bool encoded = encode(force_keyframe, out, is_keyframe);
  cpu_us_ += process_cpu_us() - before_us;
  return encoded;
}

bool VideoEncoder::encode(bool force_keyframe, std::vector<std::uint8_t>* out, bool* is_keyframe) {
  out->clear();
  *is_keyframe = false;
  if (!codec_) return false;
  if (codec_->path == FramePath::ReadBack && !read_back_into_frame()) return false;

  // libopenh264 heeds the picture type alone, others the flag; both are cleared again, since the
  // frame is used for every picture.
  AVFrame* frame = codec_->frame.get();
  if (force_keyframe) {
    frame->flags |= AV_FRAME_FLAG_KEY;
    frame->pict_type = AV_PICTURE_TYPE_I;
  } else {
    frame->flags &= ~AV_FRAME_FLAG_KEY;
    frame->pict_type = AV_PICTURE_TYPE_NONE;
  }
  frame->pts = static_cast<std::int64_t>(pts_++);
  set_colours(frame);
  frame->chroma_location = AVCHROMA_LOC_LEFT;

  const int sent = avcodec_send_frame(codec_->ctx.get(), frame);
  if (codec_->path == FramePath::ZeroCopy) av_frame_unref(frame);
  if (sent < 0 && sent != AVERROR(EAGAIN)) {
    hlog("encoder: send_frame failed: %s", ErrorText(sent).text);
    return false;
  }
  AVCodecContext* ctx = codec_->ctx.get();
  return collect_packets([ctx](AVPacket* packet) { return avcodec_receive_packet(ctx, packet); },
                         codec_->packet.get(), PACKET_WAIT_MS, out, is_keyframe);
}

bool VideoEncoder::set_bitrate(int kbps) {
  settings_.bitrate_kbps = kbps;
  if (!codec_ || !takes_rate_in_place(name_)) return false;
  set_rate(codec_->ctx.get(), settings_);
  return true;
}
