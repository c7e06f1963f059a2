#include "tests/support/opus_decoder.h"

#include <gtest/gtest.h>
#include <opus.h>

namespace {
constexpr int LONGEST_FRAMES = SoundDecoder::RATE * 120 / 1000;  // RFC 6716, 3.2.5
}

OpusPacketFacts opus_packet_facts(std::span<const std::uint8_t> packet) {
  OpusPacketFacts facts;
  if (packet.empty()) return {.damaged = true};
  constexpr unsigned FIRST_CELT_CONFIGURATION = 16;
  facts.low_delay_mode = packet[0] >> 3 >= FIRST_CELT_CONFIGURATION;
  facts.stereo = opus_packet_get_nb_channels(packet.data()) == 2;
  facts.frames = opus_packet_get_nb_samples(packet.data(), static_cast<opus_int32>(packet.size()),
                                            SoundDecoder::RATE);
  facts.damaged = facts.frames <= 0;
  return facts;
}

SoundDecoder::SoundDecoder() {
  int error = OPUS_OK;
  decoder_.reset(opus_decoder_create(RATE, 2, &error));
  EXPECT_EQ(error, OPUS_OK);
}

void SoundDecoder::Destroy::operator()(OpusDecoder* decoder) const {
  opus_decoder_destroy(decoder);
}

void SoundDecoder::decode(std::span<const std::uint8_t> packet) {
  float samples[LONGEST_FRAMES * 2];
  const int frames =
      opus_decode_float(decoder_.get(), packet.data(), static_cast<opus_int32>(packet.size()),
                        samples, LONGEST_FRAMES, 0);
  EXPECT_GT(frames, 0) << opus_strerror(frames);
  for (int frame = 0; frame < frames; ++frame) {
    left.push_back(samples[2 * frame]);
    right.push_back(samples[2 * frame + 1]);
  }
}
