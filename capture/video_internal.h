// The capture loop behind CapturePipeline: everything that runs on the capture thread. It has no
// thread and no clock of its own, so that a test can drive it pass by pass.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/pointer.h"
#include "capture/source.h"
#include "capture/video.h"

namespace capture_internal {

// What other threads may touch while the loop runs.
struct CaptureRequests {
  std::atomic<bool> stop{false};
  std::atomic<bool> start{false};
  std::atomic<bool> keyframe{true};
  std::atomic<std::int32_t> bitrate_kbps{0};  // to apply at the next encode, 0 if none
  WakeEvent wake{WakeEvent::Reset::Manual};   // every wait of the loop ends when it is set
};

// What a session has settled on, for other threads to read.
struct ActiveCapture {
  mutable std::mutex mutex;
  std::string encoder;
  std::string backend;
  bool is_hevc = false;
};

class CaptureLoop {
 public:
  // `owner` for its sinks. All but the platform outlive the loop.
  CaptureLoop(CapturePlatform platform, VideoCapture& owner, CaptureRequests& requests,
              ActiveCapture& active);
  ~CaptureLoop();

  void reset(const VideoSettings& settings);  // forgets any session before
  bool init_all();                            // capture and encoder, proven by one keyframe
  void begin_run();
  bool pass();  // one turn of the loop; false once it is over
  void end();   // releases all that is held, the desktop too

  bool fatal() const { return fatal_; }

 private:
  // video_setup.cpp
  bool follow_input_desktop();
  bool geometry_valid();
  bool init_gpu(const EncoderSettings& wanted);
  bool init_memory(const EncoderSettings& wanted);
  bool first_picture();
  bool subscribe();
  void note_subscribe_failure(const SubscribeFailure& failure);
  EncoderSettings encoder_settings() const;
  bool keyframe_good() const;  // of the last output
  void publish_active();
  void teardown();
  void fail(const char* reason);

  // video_run.cpp
  enum class Step { Continue, NextPass };
  bool over() const { return requests_.stop || fatal_; }
  void polled_pass();
  void notified_pass();
  bool keep_subscribed();
  std::uint32_t acquire_wait_ms() const;
  Step take(AcquireResult result, const AcquiredPicture& acquired);
  bool on_picture(const AcquiredPicture& acquired);
  void encode_when_due();
  void report_pointer();
  void forget_picture();
  void pause_ms(std::uint32_t ms);
  std::int64_t frame_us() const;       // T
  std::int64_t min_encode_us() const;  // M
  std::int64_t repeat_us() const;

  // video_encode.cpp
  void encode(std::uint64_t capture_us, std::uint64_t submit_us);
  bool still_on_desktop();
  bool apply_bitrate();
  bool fill_encoder_frame();
  void count_encoder_error(bool say);
  bool accept_output(bool forced, bool is_keyframe);
  bool reopen_encoder();

  CapturePlatform platform_;
  VideoCapture& owner_;
  CaptureRequests& requests_;
  ActiveCapture& active_;
  VideoSettings settings_;  // `display` and `bitrate_kbps` follow what holds now

  std::unique_ptr<InputDesktop> desktop_;
  std::unique_ptr<CaptureSource> source_;  // null while torn down
  std::unique_ptr<PictureEncoder> encoder_;
  PointerTracker pointer_;

  bool ready_ = false;         // capture and encoder are up
  bool started_ = false;       // from now on only the settled encoder and size are acceptable
  bool initialising_ = false;  // encoded output is held back
  bool fatal_ = false;
  std::int32_t fixed_width_ = 0;  // the display's size at the first look at it
  std::int32_t fixed_height_ = 0;

  std::vector<std::uint8_t> encoded_;  // the encoder's last output
  bool last_keyframe_ = false;         // what it was
  std::int32_t frames_since_keyframe_ = 0;
  std::int32_t encoder_errors_ = 0;      // in a row
  std::int32_t subscribe_failures_ = 0;  // in a row
  std::uint32_t last_subscribe_code_ = 0;
  std::uint64_t last_subscribe_log_us_ = 0;

  // Of the run.
  bool have_picture_ = false;
  bool pending_ = false;  // a picture waits for its encode
  std::uint64_t last_encode_us_ = 0;
  std::uint64_t last_picture_us_ = 0;
  std::uint64_t capture_us_ = 0;
  std::uint64_t acquire_us_ = 0;
};

}  // namespace capture_internal
