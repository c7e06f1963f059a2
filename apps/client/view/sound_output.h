// The sound device: what arrives is played, with at most 60 ms waiting, the device's own
// buffer included as far as SDL knows it. The network thread pushes, the device's thread pulls; one
// lock over the buffer between them, held for a copy.
#pragma once

#include <SDL.h>

#include <mutex>
#include <string>

#include "apps/client/sound_receiver.h"
#include "apps/client/view/playout.h"

class SoundOutput {
 public:
  SoundOutput() = default;
  ~SoundOutput() { close(); }
  SoundOutput(const SoundOutput&) = delete;
  SoundOutput& operator=(const SoundOutput&) = delete;

  bool open(std::string* error);  // false: this computer has no sound device
  void close();
  bool is_open() const { return device_ != 0; }
  bool was_open() const { return opened_; }

  void play(const SoundBlock& block);  // network thread
  void set_on(bool on);                // off: what waits is forgotten

  struct Figures {
    PlayoutFigures playout;
    double buffered_ms = 0;     // now, the device's buffer included
    double most_ms = 0;         // of the run, likewise
    double most_lately_ms = 0;  // since the last call of take_figures
  };
  Figures take_figures();

 private:
  static void SDLCALL pull(void* self, Uint8* stream, int bytes);
  std::size_t in_device() const;  // frames, about

  SDL_AudioDeviceID device_ = 0;
  bool opened_ = false;
  std::size_t device_frames_ = 0;  // the device's own buffer holds no more
  std::mutex mutex_;
  bool on_ = true;
  PlayoutBuffer buffer_{PlayoutLimits{}};
  std::uint64_t pulled_us_ = 0;  // when the device took its last portion
  std::size_t device_left_ = 0;  // what it held then
  std::size_t most_lately_ = 0;
};
