// Plays the sound packets of a host: Opus (RFC 6716), 48 kHz stereo, decoded by libopus itself, not
// through the library that encoded them. One thread.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct OpusDecoder;

// What a packet's first byte says of it (RFC 6716, section 3.1) and how long it plays.
struct OpusPacketFacts {
  bool low_delay_mode = false;  // coded by CELT alone
  bool stereo = false;
  int frames = 0;        // 48 kHz sample pairs
  bool damaged = false;  // not an Opus packet
};
OpusPacketFacts opus_packet_facts(std::span<const std::uint8_t> packet);

class SoundDecoder {
 public:
  static constexpr int RATE = 48'000;

  SoundDecoder();

  // Adds the packet's samples to `left` and `right`; fails the test when it doesn't decode.
  void decode(std::span<const std::uint8_t> packet);

  std::vector<float> left;
  std::vector<float> right;

 private:
  struct Destroy {
    void operator()(OpusDecoder* decoder) const;
  };
  std::unique_ptr<OpusDecoder, Destroy> decoder_;
};
