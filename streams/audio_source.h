// What a platform offers the audio capture: the sound of the default output device. Everything here
// is called on the audio thread alone.
//
// A source makes the system's calls and reports results; which form of sound is asked for, when to
// try again, when to follow another device and what silence means is the capture's (audio_loop).
// Calls that can fail give an error number, 0 for success; the log shows it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// How a device mixes, in the terms of WAVEFORMATEX and WAVEFORMATEXTENSIBLE.
struct MixFormat {
  enum class SubFormat { Other, Pcm, Float };

  std::uint16_t tag = 0;
  std::uint16_t extra_bytes = 0;            // cbSize
  SubFormat sub_format = SubFormat::Other;  // where there are at least 22 extra bytes
  std::uint32_t rate = 0;
  std::uint16_t channels = 0;
  std::uint16_t bits = 0;         // a sample's container
  std::uint16_t block_align = 0;  // bytes of a frame
};

// One piece of sound, in the form that the source was prepared for.
struct AudioBuffer {
  const std::uint8_t* data = nullptr;  // null: silence
  std::uint32_t frames = 0;
  bool silent = false;          // to be taken as silence, whatever the bytes say
  std::uint64_t device_us = 0;  // when its first frame was played, lund_now_us time; 0 if unknown
};

class AudioSource {
 public:
  enum class Form {
    Converted,  // the system converts to 48 kHz, stereo, 32-bit float
    AsMixed     // as the device mixes
  };

  virtual ~AudioSource() = default;

  virtual const char* name() const = 0;  // of the facility, as the log says it: "WASAPI"

  // Whether sound comes while nothing plays, too.
  virtual bool sends_silence() const { return true; }

  // Finds the default output device. `device` becomes its id, empty if that can't be read. Here and
  // in `prepare` a source that has to wait gives up, with an error, within 50 ms after `stop` is
  // set, and in any case after 5 s.
  virtual std::uint32_t open(const std::atomic<bool>& stop, std::string* device,
                             MixFormat* mix) = 0;

  // Agrees with the system on the form in which the opened device is recorded, with as little delay
  // as it allows. May be called again with another form after a failure.
  virtual std::uint32_t prepare(const std::atomic<bool>& stop, Form form) = 0;

  // Begins to record, in the form that was agreed on. Nothing to do where that began with it.
  virtual std::uint32_t start() { return 0; }

  // Returns when there is sound to take, or after `wait_ms`.
  virtual void wait(std::uint32_t wait_ms) = 0;

  // The next piece of sound; 0 frames when there is none. With frames, release is due before the
  // next call.
  virtual std::uint32_t next_buffer(AudioBuffer* out) = 0;
  virtual void release_buffer() = 0;

  // The id of the device that is the default now, empty if it can't be read. Doesn't wait.
  virtual std::string default_device() = 0;

  virtual void close() = 0;  // back to before `open`; idempotent
};

std::unique_ptr<AudioSource> make_native_audio_source();

// While it lives, the calling thread has the priority that the platform grants to sound.
class AudioThreadPriority {
 public:
  AudioThreadPriority();
  ~AudioThreadPriority();
  AudioThreadPriority(const AudioThreadPriority&) = delete;
  AudioThreadPriority& operator=(const AudioThreadPriority&) = delete;

 private:
  std::intptr_t former_;
};
