// A recording of the host's sound: a WAV file of 48 kHz, stereo, 16 bits, in which a sound stands
// at its time from the beginning. Where none came, there is silence, so the file lasts as long as
// the time did. One thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "apps/client/sound_receiver.h"

class WavWriter {
 public:
  // False with `error`.
  bool open(const std::filesystem::path& path, std::string* error);

  // The time of the first sample. What was played before is left out.
  void begin(std::uint64_t start_us);
  void put(const SoundBlock& block);  // in the order of playing; nothing before begin
  // Silence up to the end, or an end there, and the sizes in the header. False when the disk
  // refused anything.
  bool finish(std::uint64_t end_us);

  bool begun() const { return begun_; }
  std::uint64_t frames() const { return frames_; }

 private:
  std::int64_t frame_at(std::uint64_t time_us) const;
  void write_header();
  void write_silence(std::uint64_t frames);
  void write_samples(const float* samples, std::size_t frames);
  void flush();

  std::filesystem::path path_;
  std::ofstream file_;
  bool begun_ = false;
  bool follows_ = false;  // something was put
  std::uint64_t start_us_ = 0;
  std::uint64_t frames_ = 0;  // written
  std::vector<std::uint8_t> bytes_;
};
