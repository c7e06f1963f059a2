// One encode: from the held picture to the frame sink.
#include <algorithm>
#include <limits>

#include "capture/video_internal.h"
#include "connection/clock.h"
#include "control/log.h"
#include "media/cpu_codec.h"

namespace capture_internal {
namespace {

// A keyframe at the latest after so many other frames, whatever the encoder's own rhythm.
constexpr std::int32_t REFRESH_FRAMES = 2000;
constexpr std::int32_t ERRORS_BEFORE_REOPEN = 6;

std::uint32_t saturated_us(std::uint64_t from_us, std::uint64_t to_us) {
  const std::uint64_t us = to_us > from_us ? to_us - from_us : 0;
  return static_cast<std::uint32_t>(
      std::min<std::uint64_t>(us, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

void CaptureLoop::encode(std::uint64_t capture_us, std::uint64_t submit_us) {
  if (!source_ || !source_->converter_ready() || !encoder_->is_open()) return;
  if (!still_on_desktop() || !apply_bitrate()) return;
  const bool forced =
      requests_.keyframe.exchange(false) || frames_since_keyframe_ >= REFRESH_FRAMES;
  if (!fill_encoder_frame()) {
    count_encoder_error(false);
    return;
  }
  const std::uint64_t begin_us = lund_now_us();
  bool is_keyframe = false;
  const bool encoded = encoder_->end_frame(forced, &encoded_, &is_keyframe);
  const std::uint64_t end_us = lund_now_us();
  if (!encoded) {
    count_encoder_error(true);
    return;
  }
  encoder_errors_ = 0;
  if (!accept_output(forced, is_keyframe)) return;

  EncodedVideoFrame frame;
  frame.data = encoded_.data();
  frame.size = encoded_.size();
  frame.keyframe = is_keyframe;
  frame.capture_time_us = capture_us;
  frame.encode_time_us = saturated_us(submit_us, end_us);
  frame.submit_to_packet_us = saturated_us(begin_us, end_us);
  // The encoder call took a while, and the desktop may have changed meanwhile.
  if (!still_on_desktop()) return;
  if (started_ && !initialising_ && owner_.frame_sink) owner_.frame_sink(frame);
}

// A frame never leaves after the desktop has changed.
bool CaptureLoop::still_on_desktop() {
  if (desktop_->matches()) return true;
  encoded_.clear();
  last_keyframe_ = false;
  teardown();
  return false;
}

bool CaptureLoop::apply_bitrate() {
  const std::int32_t kbps = requests_.bitrate_kbps.exchange(0);
  if (kbps == 0) return true;
  settings_.bitrate_kbps = kbps;
  if (encoder_->set_bitrate(kbps)) {
    hlog("video: bitrate -> %d kbps (in place)", kbps);
    return true;
  }
  hlog("video: bitrate -> %d kbps (reopening %s)", kbps, encoder_->name().c_str());
  return reopen_encoder();
}

bool CaptureLoop::fill_encoder_frame() {
  if (source_->traits().gpu) {
    EncoderSurface surface;
    return encoder_->begin_frame(&surface) && source_->draw(surface);
  }
  MemoryPicture picture;
  return source_->picture(&picture) &&
         encoder_->prepare_cpu_frame(picture.bgra, picture.size, picture.width, picture.height,
                                     picture.stride);
}

void CaptureLoop::count_encoder_error(bool say) {
  requests_.keyframe = true;
  if (++encoder_errors_ < ERRORS_BEFORE_REOPEN) return;
  if (say) hlog("video: repeated encoder errors; reopening %s", encoder_->name().c_str());
  reopen_encoder();
  encoder_errors_ = 0;
}

// Keeps the book of keyframes. False: there is nothing to send.
bool CaptureLoop::accept_output(bool forced, bool is_keyframe) {
  if (encoded_.empty()) {
    if (forced) requests_.keyframe = true;
    return false;
  }
  last_keyframe_ = is_keyframe;
  if (!is_keyframe) {
    ++frames_since_keyframe_;
    if (forced) requests_.keyframe = true;
    return true;
  }
  if (!keyframe_good()) {
    encoded_.clear();
    last_keyframe_ = false;
    requests_.keyframe = true;
    if (started_) fail("encoder keyframe omitted required in-band parameter sets");
    return false;
  }
  frames_since_keyframe_ = 0;
  return true;
}

bool CaptureLoop::reopen_encoder() {
  source_->forget_surfaces();
  EncoderSettings wanted = encoder_->settings();
  {
    const std::lock_guard lock(active_.mutex);
    wanted.required = active_.encoder;
  }
  encoder_->close();
  if (!encoder_->open(source_->device(), wanted)) {
    fail("negotiated encoder could not reopen; reconnect required");
    return false;
  }
  requests_.keyframe = true;
  return true;
}

}  // namespace capture_internal
