// One video encoder for a stream that must start decoding on any keyframe and must never wait: one
// frame in, one frame out, no B-frames, no look-ahead, strict constant bit rate with a buffer of a
// single frame. Pixels come in one of three ways, decided when it opens: drawn into the encoder's
// own GPU surfaces, drawn into a surface that is read back as NV12, or as a BGRA picture that is
// converted to I420, BT.709 full range.
//
// Not thread-safe: all calls come from the capture thread. Failures are results with a log line; no
// exceptions leave the class. Frame, packet and converter are kept across frames.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "capture/encoder_surfaces.h"

struct EncoderSettings {
  std::int32_t width = 0;  // even, 1 to 8192
  std::int32_t height = 0;
  std::int32_t fps = 60;  // 1 to 240
  std::int32_t bitrate_kbps = 20000;
  bool prefer_hevc = true;
  std::string required;   // an encoder name that must be used, or empty
  std::string preferred;  // an encoder name to try first, or empty
};

// What the pipeline asks of an encoder. VideoEncoder is the one; tests of the pipeline stand in.
class PictureEncoder {
 public:
  virtual ~PictureEncoder() = default;

  // Closes what is open and selects afresh. `device` null: the CPU path. It outlives the encoder's
  // open state.
  virtual bool open(EncoderDevice* device, const EncoderSettings& settings) = 0;
  virtual void close() = 0;  // any time; the settings stay
  virtual bool is_open() const = 0;

  // The surface to draw the next picture into; false on the CPU path.
  virtual bool begin_frame(EncoderSurface* surface) = 0;

  // CPU path alone: fills the frame from a top-down picture, scaling it to the encoded size.
  virtual bool prepare_cpu_frame(const std::uint8_t* bgra, std::uint64_t size, int width,
                                 int height, int stride) = 0;

  // Encodes the frame. `out` is the access unit in Annex B form, empty if the encoder kept it.
  virtual bool end_frame(bool force_keyframe, std::vector<std::uint8_t>* out,
                         bool* is_keyframe) = 0;

  // Keeps the rate in the settings; true if it works without reopening.
  virtual bool set_bitrate(int kbps) = 0;

  virtual const EncoderSettings& settings() const = 0;
  virtual const std::string& name() const = 0;  // empty while closed
  virtual bool is_hevc() const = 0;
};

class VideoEncoder final : public PictureEncoder {
 public:
  VideoEncoder();
  ~VideoEncoder() override;

  bool open(EncoderDevice* device, const EncoderSettings& settings) override;
  void close() override;
  bool is_open() const override;
  bool begin_frame(EncoderSurface* surface) override;
  bool prepare_cpu_frame(const std::uint8_t* bgra, std::uint64_t size, int width, int height,
                         int stride) override;
  bool end_frame(bool force_keyframe, std::vector<std::uint8_t>* out, bool* is_keyframe) override;
  bool set_bitrate(int kbps) override;
  const EncoderSettings& settings() const override { return settings_; }
  const std::string& name() const override { return name_; }
  bool is_hevc() const override { return is_hevc_; }

 private:
  struct Codec;  // FFmpeg's objects of one open encoder

  bool try_open(EncoderDevice* device, const std::string& name);
  bool read_back_into_frame();
  bool encode(bool force_keyframe, std::vector<std::uint8_t>* out, bool* is_keyframe);

  EncoderSettings settings_;
  std::string name_;
  bool is_hevc_ = false;
  std::uint64_t pts_ = 0;
  std::uint64_t cpu_us_ = 0;      // the process's processor time that passed inside the encoder
  std::unique_ptr<Codec> codec_;  // non-null exactly while open
};
