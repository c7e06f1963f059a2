#include "apps/client/sound_receiver.h"

#include <algorithm>
#include <cstring>

#include "connection/protocol.h"

namespace {

// Beyond this the host's sound was away, not some packets of it.
constexpr std::uint32_t JUMP_MAX = 100;

}  // namespace

void SoundReceiver::begin() {
  open_ = decoder_.open();
  begun_ = false;
  missing_ = 0;
  for (Held& held : held_) held.full = false;
}

void SoundReceiver::take(const std::uint8_t* packet, std::size_t size,
                         std::int64_t clock_offset_us) {
  lund_audio_packet audio;
  const std::uint8_t* opus = nullptr;
  std::size_t opus_size = 0;
  if (!open_ || lund_decode_audio(packet, size, &audio, &opus, &opus_size) != 0 ||
      opus_size > PACKET_MAX)
    return;
  if (!begun_) {
    begun_ = true;
    next_ = audio.seq;
  }
  const auto ahead = static_cast<std::int32_t>(audio.seq - next_);
  if (ahead < 0) {
    ++counts_.late;
    return;
  }
  if (static_cast<std::uint32_t>(ahead) > JUMP_MAX) {
    counts_.lost += static_cast<std::uint32_t>(ahead);
    for (Held& held : held_) held.full = false;
    next_ = audio.seq;
    missing_ = 0;
  }
  while (audio.seq - next_ >= WINDOW) step_over();
  Held& slot = held(audio.seq);
  slot.full = true;
  slot.capture_us = audio.timestamp_us - static_cast<std::uint64_t>(clock_offset_us);
  slot.size = opus_size;
  std::memcpy(slot.opus.data(), opus, opus_size);
  while (held(next_).full) step_over();
}

// Plays the packet awaited, or does without it.
void SoundReceiver::step_over() {
  Held& slot = held(next_);
  ++next_;
  if (!slot.full) return conceal();
  slot.full = false;
  ++counts_.packets;
  missing_ = 0;
  play(slot.opus.data(), slot.size, slot.capture_us);
}

void SoundReceiver::play(const std::uint8_t* opus, std::size_t size, std::uint64_t capture_us) {
  const auto samples = decoder_.decode(opus, size);
  if (samples.empty()) {
    ++counts_.undecodable;
    return;
  }
  const std::size_t frames = samples.size() / SOUND_CHANNELS;
  next_capture_us_ = capture_us + frames * 1'000'000 / SOUND_RATE;
  sink_({samples.data(), frames, capture_us, false});
}

void SoundReceiver::conceal() {
  ++counts_.lost;
  if (++missing_ > CONCEAL_MAX) return;
  const auto samples = decoder_.conceal();
  if (samples.empty()) return;
  ++counts_.concealed;
  const std::size_t frames = samples.size() / SOUND_CHANNELS;
  const std::uint64_t capture_us = next_capture_us_;
  next_capture_us_ += frames * 1'000'000 / SOUND_RATE;
  sink_({samples.data(), frames, capture_us, true});
}
