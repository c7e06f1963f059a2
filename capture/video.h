// One display as a stream of encoded frames. VideoCapture is what a session holds; CapturePipeline
// is the one that captures: it owns one thread on which capture, conversion, encoding and all four
// sinks run, and recovers by itself from what is recoverable. Other threads may call the members
// below.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "capture/display.h"
#include "media/cursor_convert.h"

struct VideoSettings {
  DisplayInfo display;     // identified afterwards by its device name
  std::int32_t width = 0;  // encoded size; the converter scales
  std::int32_t height = 0;
  std::int32_t fps = 60;
  std::int32_t bitrate_kbps = 20000;
  bool prefer_hevc = true;
  std::string encoder;  // preferred, or empty
};

struct EncodedVideoFrame {
  const std::uint8_t* data = nullptr;  // Annex B access unit, valid only during the callback
  std::uint64_t size = 0;
  bool keyframe = false;
  std::uint64_t capture_time_us = 0;      // when the picture was presented, lund_now_us time
  std::uint32_t encode_time_us = 0;       // from submission to the end of the encoder call
  std::uint32_t submit_to_packet_us = 0;  // the encoder call alone
};

class VideoCapture {
 public:
  virtual ~VideoCapture() = default;

  // Assigned after init and before start; each may be empty. Called on the capture thread; a sink
  // that blocks delays the next picture.
  std::function<void(const EncodedVideoFrame&)> frame_sink;
  std::function<void(std::uint16_t x, std::uint16_t y, std::uint8_t visible)> pointer_sink;
  std::function<void(const CursorBitmap&)> cursor_sink;
  std::function<void(const char* reason)> fatal_sink;  // has given up; ends nothing by itself

  // Proves capture and encoder with one real keyframe; blocks until that has been decided.
  virtual bool init(const VideoSettings& settings) = 0;
  virtual void start() = 0;
  virtual void stop() = 0;  // joins; idempotent
  virtual void request_keyframe() = 0;
  virtual void set_bitrate(int kbps) = 0;  // applied at the next encode
  virtual bool encoder_is_hevc() const = 0;
  virtual std::string encoder_name() const = 0;
  virtual std::string capture_backend() const = 0;  // "DDA GPU", "GDI CPU", "X11 CPU"
};

struct CapturePlatform;  // capture/source.h: what a platform offers to capture with

class CapturePipeline final : public VideoCapture {
 public:
  explicit CapturePipeline(CapturePlatform platform);
  ~CapturePipeline() override;

  bool init(const VideoSettings& settings) override;
  void start() override;
  void stop() override;
  void request_keyframe() override;
  void set_bitrate(int kbps) override;
  bool encoder_is_hevc() const override;
  std::string encoder_name() const override;
  std::string capture_backend() const override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
