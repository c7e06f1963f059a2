// Opus packets as a host makes them, late, lost, and made of anything.
#include "apps/client/sound_receiver.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cmath>
#include <numbers>

#include "connection/protocol.h"
#include "tests/support/netsim.h"
#include "tests/support/spectrum.h"

namespace {

constexpr std::uint64_t MS = 1'000;
constexpr std::uint64_t T0 = 90'000'000;     // of packet 1, at the host
constexpr std::int64_t OFFSET = 40'000'000;  // host's clock less this one's
using Bytes = std::vector<std::uint8_t>;

// A tone of 440 Hz in packets of 10 ms, encoded as the host does.
std::vector<Bytes> tone_packets(int count) {
  const AVCodec* codec = avcodec_find_encoder_by_name("libopus");
  AVCodecContext* context = avcodec_alloc_context3(codec);
  context->sample_rate = SOUND_RATE;
  context->time_base = {1, SOUND_RATE};
  context->sample_fmt = AV_SAMPLE_FMT_FLT;
  context->bit_rate = 128'000;
  av_channel_layout_default(&context->ch_layout, SOUND_CHANNELS);
  av_opt_set(context->priv_data, "application", "lowdelay", 0);
  av_opt_set(context->priv_data, "frame_duration", "10", 0);
  EXPECT_GE(avcodec_open2(context, codec, nullptr), 0);
  AVFrame* frame = av_frame_alloc();
  frame->format = AV_SAMPLE_FMT_FLT;
  frame->nb_samples = 480;
  av_channel_layout_copy(&frame->ch_layout, &context->ch_layout);
  av_frame_get_buffer(frame, 0);
  AVPacket* packet = av_packet_alloc();
  std::vector<Bytes> packets;
  for (int i = 0; i < count; ++i) {
    av_frame_make_writable(frame);
    auto* samples = reinterpret_cast<float*>(frame->data[0]);
    for (int k = 0; k < 480; ++k)
      samples[2 * k] = samples[2 * k + 1] = static_cast<float>(
          0.5 * std::sin(2 * std::numbers::pi * 440 * (i * 480 + k) / SOUND_RATE));
    frame->pts = i * 480;
    EXPECT_GE(avcodec_send_frame(context, frame), 0);
    while (avcodec_receive_packet(context, packet) >= 0) {
      packets.emplace_back(packet->data, packet->data + packet->size);
      av_packet_unref(packet);
    }
  }
  av_packet_free(&packet);
  av_frame_free(&frame);
  avcodec_free_context(&context);
  return packets;
}

class SoundReceiverTest : public testing::Test {
 protected:
  struct Heard {
    std::uint64_t capture_us;
    std::size_t frames;
    bool concealed;
  };
  SoundReceiverTest() { receiver_.begin(); }

  void take(std::uint32_t seq, const Bytes& opus) {
    const lund_packet_header header;
    const lund_audio_packet audio{seq, T0 + (seq - 1) * 10 * MS};
    Bytes packet(20 + opus.size());
    lund_encode_audio(packet.data(), packet.size(), &header, &audio, opus.data(), opus.size());
    receiver_.take(packet.data(), packet.size(), OFFSET);
  }
  void take(std::uint32_t seq) { take(seq, tone()[(seq - 1) % tone().size()]); }
  static const std::vector<Bytes>& tone() {
    static const std::vector<Bytes> packets = tone_packets(200);
    return packets;
  }
  // When each block was played, in packets from the first.
  std::vector<int> times() const {
    std::vector<int> list;
    for (const Heard& block : heard_)
      list.push_back(static_cast<int>((block.capture_us + OFFSET - T0) / (10 * MS)) + 1);
    return list;
  }
  // In half a second, once the coder has found its pace.
  int loudest() const {
    return loudest_hz(std::span(left_).subspan(4'800, 24'000), SOUND_RATE, 380, 500);
  }
  int concealed() const {
    return static_cast<int>(std::count_if(heard_.begin(), heard_.end(),
                                          [](const Heard& block) { return block.concealed; }));
  }

  std::vector<Heard> heard_;
  std::vector<float> left_;
  SoundReceiver receiver_{[this](const SoundBlock& block) {
    heard_.push_back({block.capture_us, block.frames, block.concealed});
    for (std::size_t i = 0; i < block.frames; ++i) left_.push_back(block.samples[2 * i]);
  }};
};

}  // namespace

TEST_F(SoundReceiverTest, AToneIsHeardInBlocksOf10MsAtTheirTimes) {
  for (std::uint32_t seq = 1; seq <= 100; ++seq) take(seq);
  ASSERT_EQ(heard_.size(), 100u);
  for (std::size_t i = 0; i < heard_.size(); ++i) {
    EXPECT_EQ(heard_[i].frames, 480u);
    EXPECT_EQ(heard_[i].capture_us, T0 - OFFSET + i * 10 * MS);
    EXPECT_FALSE(heard_[i].concealed);
  }
  EXPECT_EQ(loudest(), 440);
  EXPECT_EQ(receiver_.counts().packets, 100u);
}

TEST_F(SoundReceiverTest, OrderIsRestored) {
  for (const std::uint32_t seq : {1u, 3u, 2u, 4u, 6u, 5u, 7u}) take(seq);
  EXPECT_EQ(times(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(receiver_.counts().lost, 0u);
}

TEST_F(SoundReceiverTest, ALostPacketIsMadeUpOnceTheSecondBehindItIsThere) {
  take(1);
  take(3);
  EXPECT_EQ(times(), (std::vector<int>{1}));
  take(4);
  EXPECT_EQ(times(), (std::vector<int>{1, 2, 3, 4}));
  EXPECT_TRUE(heard_[1].concealed);
  EXPECT_EQ(heard_[1].frames, 480u);
  EXPECT_EQ(receiver_.counts().lost, 1u);
  take(2);  // too late
  EXPECT_EQ(times().size(), 4u);
  EXPECT_EQ(receiver_.counts().late, 1u);
}

TEST_F(SoundReceiverTest, WhatIsMadeUpSoundsLikeWhatWas) {
  for (std::uint32_t seq = 1; seq <= 200; ++seq)
    if (seq % 10 != 0) take(seq);
  EXPECT_EQ(concealed(), 19);  // the last isn't missed
  EXPECT_EQ(loudest(), 440);
  EXPECT_GT(tone_amplitude(std::span(left_).subspan(4'800), SOUND_RATE, 440), 0.4);
}

TEST_F(SoundReceiverTest, ALongHoleIsLeftAfterItsFirst50Ms) {
  for (const std::uint32_t seq : {1u, 2u, 33u, 34u, 35u}) take(seq);
  EXPECT_EQ(times(), (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 33, 34, 35}));
  EXPECT_EQ(concealed(), 5);
  EXPECT_EQ(receiver_.counts().lost, 30u);
}

TEST_F(SoundReceiverTest, SoundThatWasAwayGoesOnAtOnce) {
  take(1);
  take(5'000);
  take(5'001);
  EXPECT_EQ(times(), (std::vector<int>{1, 5'000, 5'001}));
  EXPECT_EQ(receiver_.counts().lost, 4'998u);
}

TEST_F(SoundReceiverTest, ANewSessionIsNumberedAnew) {
  for (std::uint32_t seq = 1; seq <= 50; ++seq) take(seq);
  receiver_.begin();
  for (std::uint32_t seq = 1; seq <= 3; ++seq) take(seq);
  EXPECT_EQ(heard_.size(), 53u);
  EXPECT_EQ(receiver_.counts().late, 0u);
}

TEST_F(SoundReceiverTest, NumbersWrap) {
  const lund_packet_header header;
  for (const std::uint32_t seq : {0xFFFFFFFEu, 0xFFFFFFFFu, 0u, 1u}) {
    const lund_audio_packet audio{seq, T0};
    Bytes packet(20 + tone()[0].size());
    lund_encode_audio(packet.data(), packet.size(), &header, &audio, tone()[0].data(),
                      tone()[0].size());
    receiver_.take(packet.data(), packet.size(), OFFSET);
  }
  EXPECT_EQ(heard_.size(), 4u);
  EXPECT_EQ(receiver_.counts().lost, 0u);
}

// ---- What a host should not send

TEST_F(SoundReceiverTest, WhatIsNoOpusIsPassedOver) {
  take(1);
  take(2, {});
  take(3, Bytes(1'600, 0xFF));  // longer than any datagram
  take(4);
  take(5);
  take(6);
  EXPECT_FALSE(heard_.empty());
  EXPECT_EQ(heard_.back().capture_us, T0 - OFFSET + 50 * MS);
  const Bytes cut(19, 0);
  receiver_.take(cut.data(), cut.size(), OFFSET);
}

TEST_F(SoundReceiverTest, BlocksAreBoundedWhateverComes) {
  SeededRandom random(5);
  for (std::uint32_t seq = 1; seq <= 3'000; ++seq) {
    Bytes opus(random.below(300));
    for (std::uint8_t& byte : opus) byte = static_cast<std::uint8_t>(random.next());
    take(static_cast<std::uint32_t>(seq + random.below(8)), opus);
  }
  for (const Heard& block : heard_) EXPECT_LE(block.frames, 5'760u);  // 120 ms: Opus's longest
  EXPECT_GT(heard_.size(), 1'000u);
}
