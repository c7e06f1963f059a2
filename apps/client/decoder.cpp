#include "apps/client/decoder.h"

#include "capture/ffmpeg_objects.h"

const std::size_t VideoDecoder::PADDING_BYTES = AV_INPUT_BUFFER_PADDING_SIZE;

struct VideoDecoder::Impl {
  ffmpeg::ContextPtr context;
  ffmpeg::PacketPtr packet{av_packet_alloc()};
  ffmpeg::FramePtr frame{av_frame_alloc()};
};

VideoDecoder::VideoDecoder() : impl_(std::make_unique<Impl>()) {}
VideoDecoder::~VideoDecoder() = default;

bool VideoDecoder::open(bool hevc) {
  impl_->context.reset();
  const AVCodec* codec = avcodec_find_decoder(hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264);
  if (!codec || !impl_->packet || !impl_->frame) return false;
  impl_->context.reset(avcodec_alloc_context3(codec));
  if (!impl_->context) return false;
  // Frame threading would hold pictures back; slices of one picture may be decoded side by side.
  impl_->context->flags |= AV_CODEC_FLAG_LOW_DELAY;
  impl_->context->thread_type = FF_THREAD_SLICE;
  impl_->context->thread_count = 2;
  return avcodec_open2(impl_->context.get(), codec, nullptr) >= 0;
}

bool VideoDecoder::decode(const std::uint8_t* data, std::size_t size, DecodedPicture* picture) {
  if (!impl_->context) return false;
  impl_->packet->data = const_cast<std::uint8_t*>(data);  // FFmpeg only reads it
  impl_->packet->size = static_cast<int>(size);
  if (avcodec_send_packet(impl_->context.get(), impl_->packet.get()) < 0) return false;
  if (avcodec_receive_frame(impl_->context.get(), impl_->frame.get()) < 0) return false;
  const AVFrame& frame = *impl_->frame;
  if (frame.format != AV_PIX_FMT_YUV420P && frame.format != AV_PIX_FMT_YUVJ420P) return false;
  picture->width = frame.width;
  picture->height = frame.height;
  for (int plane = 0; plane < 3; ++plane) {
    picture->planes[plane] = frame.data[plane];
    picture->strides[plane] = frame.linesize[plane];
  }
  return (frame.flags & AV_FRAME_FLAG_CORRUPT) == 0 && frame.decode_error_flags == 0;
}
