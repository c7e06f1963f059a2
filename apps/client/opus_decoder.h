// Decodes Opus packets (RFC 6716) to 48 kHz stereo with FFmpeg's libopus, and makes up for lost
// ones. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

class OpusSoundDecoder {
 public:
  OpusSoundDecoder();
  ~OpusSoundDecoder();
  OpusSoundDecoder(const OpusSoundDecoder&) = delete;
  OpusSoundDecoder& operator=(const OpusSoundDecoder&) = delete;

  // False when this FFmpeg has no such decoder. Again: forgets what came before.
  bool open();

  // Interleaved samples, valid until the next call; none for a packet that isn't Opus.
  std::span<const float> decode(const std::uint8_t* packet, std::size_t size);
  // What stands in for a lost packet, of the last one's length; none before the first.
  std::span<const float> conceal();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
