#include "apps/client/view/sound_output.h"

#include <algorithm>

namespace {

constexpr Uint16 PORTION_FRAMES = 480;  // 10 ms
// SDL's drivers keep two portions: one sounds while the next is asked for.
constexpr std::size_t DEVICE_PORTIONS = 2;
constexpr std::size_t MOST_FRAMES = SOUND_MOST_MS * PlayoutBuffer::RATE_HZ / 1000;

// What is left for the buffer beside the device's own. A device that takes all of it, which SDL
// doesn't choose of its own accord, still gets what a packet and a portion need.
PlayoutLimits limits_beside(std::size_t device_frames) {
  PlayoutLimits limits;
  const std::size_t least = 2 * limits.target_frames;
  limits.max_frames = std::max(least, MOST_FRAMES - std::min(MOST_FRAMES, device_frames));
  return limits;
}

double to_ms(std::size_t frames) {
  return static_cast<double>(frames) * 1000 / PlayoutBuffer::RATE_HZ;
}

}  // namespace

SoundOutput::SoundOutput() : buffer_(limits_beside(DEVICE_PORTIONS * PORTION_FRAMES)) {}

bool SoundOutput::open(std::string* error) {
  static_assert(PlayoutBuffer::RATE_HZ == SOUND_RATE && PlayoutBuffer::CHANNELS == SOUND_CHANNELS);
  if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
    *error = SDL_GetError();
    return false;
  }
  // Where there is none, opening the default one makes some drivers tell their woes at length.
  if (SDL_GetNumAudioDevices(0) == 0) {
    *error = "none is there";
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
    return false;
  }
  SDL_AudioSpec wanted{};
  wanted.freq = SOUND_RATE;
  wanted.format = AUDIO_F32SYS;
  wanted.channels = SOUND_CHANNELS;
  wanted.samples = PORTION_FRAMES;
  wanted.callback = pull;
  wanted.userdata = this;
  SDL_AudioSpec obtained{};
  device_ = SDL_OpenAudioDevice(nullptr, 0, &wanted, &obtained, SDL_AUDIO_ALLOW_SAMPLES_CHANGE);
  if (device_ == 0) {
    *error = SDL_GetError();
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
    return false;
  }
  device_frames_ = DEVICE_PORTIONS * obtained.samples;
  buffer_ = PlayoutBuffer(limits_beside(device_frames_));  // nobody pulls before it is unpaused
  SDL_PauseAudioDevice(device_, 0);
  return true;
}

void SoundOutput::close() {
  if (device_ == 0) return;
  SDL_CloseAudioDevice(device_);
  device_ = 0;
  SDL_QuitSubSystem(SDL_INIT_AUDIO);
}

void SDLCALL SoundOutput::pull(void* self, Uint8* stream, int bytes) {
  auto* output = static_cast<SoundOutput*>(self);
  const std::size_t frames = static_cast<std::size_t>(bytes) / sizeof(float) / SOUND_CHANNELS;
  std::lock_guard lock(output->mutex_);
  output->buffer_.pull(reinterpret_cast<float*>(stream), frames);
}

void SoundOutput::play(const SoundBlock& block) {
  std::lock_guard lock(mutex_);
  if (device_ == 0 || !on_) return;
  buffer_.push(block.samples, block.frames);
  most_lately_ = std::max(most_lately_, buffer_.figures().buffered_frames);
}

void SoundOutput::set_on(bool on) {
  std::lock_guard lock(mutex_);
  on_ = on;
  if (!on) buffer_.clear();
}

SoundOutput::Figures SoundOutput::take_figures() {
  std::lock_guard lock(mutex_);
  Figures figures;
  figures.playout = buffer_.figures();
  const std::size_t device = figures.playout.played_frames > 0 ? device_frames_ : 0;
  figures.buffered_ms = to_ms(figures.playout.buffered_frames + device);
  figures.most_ms = to_ms(figures.playout.most_frames + device);
  figures.most_lately_ms = to_ms(most_lately_ + device);
  most_lately_ = figures.playout.buffered_frames;
  return figures;
}
