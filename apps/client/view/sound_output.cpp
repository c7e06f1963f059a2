#include "apps/client/view/sound_output.h"

#include <algorithm>
#include <string_view>

#include "connection/clock.h"

namespace {

// What the device takes at once, and what it then holds. A sound server's buffer is empty, but for
// a quarter of a portion in the server's own, when SDL asks again; shorter portions run dry on a
// busy computer. Hardware has two portions: one sounds while the next is asked for.
struct DeviceBuffer {
  Uint16 portion_frames;
  std::size_t full_frames;
};
constexpr DeviceBuffer SERVER_BUFFER{960, 1200};
constexpr DeviceBuffer HARDWARE_BUFFER{480, 960};

DeviceBuffer device_buffer(std::string_view driver) {
  return driver == "alsa" ? HARDWARE_BUFFER : SERVER_BUFFER;
}

double to_ms(std::size_t frames) {
  return static_cast<double>(frames) * 1000 / PlayoutBuffer::RATE_HZ;
}

}  // namespace

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
  const DeviceBuffer device = device_buffer(SDL_GetCurrentAudioDriver());
  wanted.samples = device.portion_frames;
  wanted.callback = pull;
  wanted.userdata = this;
  // Nothing may differ from what is wanted: where a driver takes other portions, SDL then cuts them
  // to size itself. Left to us (SDL_AUDIO_ALLOW_SAMPLES_CHANGE), SDL 2.26 asks for more than its
  // buffer holds with drivers that round the portion up.
  device_ = SDL_OpenAudioDevice(nullptr, 0, &wanted, nullptr, 0);
  if (device_ == 0) {
    *error = SDL_GetError();
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
    return false;
  }
  device_frames_ = device.full_frames;
  opened_ = true;
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
  output->device_left_ = std::min(output->in_device() + frames, output->device_frames_);
  output->pulled_us_ = lund_now_us();
  output->buffer_.pull(reinterpret_cast<float*>(stream), frames, output->device_left_);
  output->most_lately_ = std::max(output->most_lately_, output->buffer_.figures().buffered_frames);
}

std::size_t SoundOutput::in_device() const {
  const std::size_t sounded = (lund_now_us() - pulled_us_) * PlayoutBuffer::RATE_HZ / 1'000'000;
  return device_left_ - std::min(device_left_, sounded);
}

void SoundOutput::play(const SoundBlock& block) {
  std::lock_guard lock(mutex_);
  if (device_ == 0 || !on_) return;
  buffer_.push(block.samples, block.frames, in_device());
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
  figures.buffered_ms = to_ms(figures.playout.buffered_frames);
  figures.most_ms = to_ms(figures.playout.most_frames);
  figures.most_lately_ms = to_ms(most_lately_);
  most_lately_ = 0;
  return figures;
}
