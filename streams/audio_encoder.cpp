#include "streams/audio_encoder.h"

#include <cstring>

extern "C" {
#include <libavutil/channel_layout.h>
}

#include "control/log.h"

namespace audio_internal {

bool AudioEncoder::open(const OpusSettings& settings) {
  // FFmpeg would say on standard error that a block was left when the encoder closed.
  av_log_set_level(AV_LOG_ERROR);
  const AVCodec* codec = avcodec_find_encoder_by_name(settings.encoder);
  if (!codec) {
    hlog("audio: libopus encoder missing from FFmpeg; audio disabled");
    return false;
  }
  context_.reset(avcodec_alloc_context3(codec));
  frame_.reset(av_frame_alloc());
  packet_.reset(av_packet_alloc());
  if (!context_ || !frame_ || !packet_) {
    hlog("audio: libopus open failed (%d)", AVERROR(ENOMEM));
    return false;
  }
  constexpr AVChannelLayout LAYOUT = AV_CHANNEL_LAYOUT_STEREO;
  context_->sample_rate = settings.rate;
  av_channel_layout_copy(&context_->ch_layout, &LAYOUT);
  context_->time_base = {1, settings.rate};
  context_->sample_fmt = AV_SAMPLE_FMT_FLT;
  context_->bit_rate = settings.bit_rate;
  context_->compression_level = settings.compression_level;
  AVDictionary* options = nullptr;
  av_dict_set(&options, "application", settings.application, 0);
  av_dict_set(&options, "frame_duration", settings.frame_duration_ms, 0);
  av_dict_set(&options, "vbr", settings.vbr, 0);
  av_dict_set(&options, "packet_loss", settings.packet_loss_percent, 0);
  const int result = avcodec_open2(context_.get(), codec, &options);
  av_dict_free(&options);
  if (result < 0) {
    hlog("audio: libopus open failed (%d)", result);
    return false;
  }
  frame_->format = context_->sample_fmt;
  frame_->sample_rate = context_->sample_rate;
  av_channel_layout_copy(&frame_->ch_layout, &context_->ch_layout);
  frame_->nb_samples =
      context_->frame_size > 0 ? context_->frame_size : static_cast<int>(BLOCK_FRAMES);
  if (frame_->nb_samples != static_cast<int>(BLOCK_FRAMES) ||
      av_frame_get_buffer(frame_.get(), 0) < 0) {
    hlog("audio: unexpected Opus frame size %d", frame_->nb_samples);
    return false;
  }
  return true;
}

bool AudioEncoder::send(std::span<const float, BLOCK_FLOATS> block) {
  if (av_frame_make_writable(frame_.get()) < 0) return false;
  std::memcpy(frame_->data[0], block.data(), block.size_bytes());
  frame_->pts = pts_;
  pts_ += BLOCK_FRAMES;
  return avcodec_send_frame(context_.get(), frame_.get()) == 0;
}

std::span<const std::uint8_t> AudioEncoder::receive() {
  av_packet_unref(packet_.get());
  if (avcodec_receive_packet(context_.get(), packet_.get()) != 0) return {};
  return {packet_->data, static_cast<std::size_t>(packet_->size)};
}

}  // namespace audio_internal
