#include "apps/client/opus_decoder.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "apps/client/sound_receiver.h"
#include "capture/ffmpeg_objects.h"

namespace {

constexpr std::size_t PACKET_MAX = 1500;      // a datagram's
constexpr std::uint8_t TOC_ONE_FRAME = 0xFC;  // RFC 6716, 3.1: all but the frame count code

}  // namespace

struct OpusSoundDecoder::Impl {
  ffmpeg::ContextPtr context;
  ffmpeg::PacketPtr packet{av_packet_alloc()};
  ffmpeg::FramePtr frame{av_frame_alloc()};
  std::array<std::uint8_t, PACKET_MAX + AV_INPUT_BUFFER_PADDING_SIZE> bytes{};
  int toc = -1;  // of the last packet
};

OpusSoundDecoder::OpusSoundDecoder() : impl_(std::make_unique<Impl>()) {}
OpusSoundDecoder::~OpusSoundDecoder() = default;

bool OpusSoundDecoder::open() {
  impl_->context.reset();
  impl_->toc = -1;
  const AVCodec* codec = avcodec_find_decoder_by_name("libopus");
  if (!codec || !impl_->packet || !impl_->frame) return false;
  impl_->context.reset(avcodec_alloc_context3(codec));
  if (!impl_->context) return false;
  impl_->context->sample_rate = SOUND_RATE;
  impl_->context->request_sample_fmt = AV_SAMPLE_FMT_FLT;
  impl_->context->log_level_offset = AV_LOG_MAX_OFFSET;  // what comes is the host's: it is counted
  av_channel_layout_default(&impl_->context->ch_layout, SOUND_CHANNELS);
  if (avcodec_open2(impl_->context.get(), codec, nullptr) < 0) impl_->context.reset();
  return impl_->context != nullptr;
}

std::span<const float> OpusSoundDecoder::decode(const std::uint8_t* packet, std::size_t size) {
  if (!impl_->context || size == 0 || size > PACKET_MAX) return {};
  std::memcpy(impl_->bytes.data(), packet, size);
  std::fill_n(impl_->bytes.begin() + static_cast<std::ptrdiff_t>(size),
              AV_INPUT_BUFFER_PADDING_SIZE, std::uint8_t{0});
  impl_->packet->data = impl_->bytes.data();
  impl_->packet->size = static_cast<int>(size);
  if (avcodec_send_packet(impl_->context.get(), impl_->packet.get()) < 0 ||
      avcodec_receive_frame(impl_->context.get(), impl_->frame.get()) < 0)
    return {};
  const AVFrame& frame = *impl_->frame;
  if (frame.format != AV_SAMPLE_FMT_FLT || frame.ch_layout.nb_channels != SOUND_CHANNELS) return {};
  impl_->toc = impl_->bytes[0];
  return {reinterpret_cast<const float*>(frame.data[0]),
          static_cast<std::size_t>(frame.nb_samples) * SOUND_CHANNELS};
}

// A packet of the TOC byte alone holds one frame of no bytes: "lost" (RFC 6716, 3.2.1 and 4.4).
std::span<const float> OpusSoundDecoder::conceal() {
  if (impl_->toc < 0) return {};
  const std::uint8_t lost = static_cast<std::uint8_t>(impl_->toc & TOC_ONE_FRAME);
  return decode(&lost, 1);
}
