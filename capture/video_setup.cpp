// Setting up and tearing down: the desktop, the display's geometry, and the choice of the source.
#include <cassert>

#include "capture/video_internal.h"
#include "connection/clock.h"
#include "control/log.h"
#include "media/cpu_codec.h"

namespace capture_internal {
namespace {

constexpr std::uint32_t FIRST_PICTURE_WAIT_MS = 1000;
constexpr std::uint64_t REPEATED_FAILURE_LOG_US = 5'000'001;
constexpr const char* SOFTWARE_ENCODER = "libopenh264";

}  // namespace

CaptureLoop::CaptureLoop(CapturePlatform platform, VideoCapture& owner, CaptureRequests& requests,
                         ActiveCapture& active)
    : platform_(std::move(platform)),
      owner_(owner),
      requests_(requests),
      active_(active),
      desktop_(platform_.make_desktop()),
      encoder_(platform_.make_encoder()),
      pointer_(settings_, owner_) {}

CaptureLoop::~CaptureLoop() = default;

void CaptureLoop::reset(const VideoSettings& settings) {
  settings_ = settings;
  pointer_.reset();
  fatal_ = false;
  fixed_width_ = 0;
  fixed_height_ = 0;
  started_ = false;
  subscribe_failures_ = 0;
  encoder_errors_ = 0;
  frames_since_keyframe_ = 0;
  const std::lock_guard lock(active_.mutex);
  active_.encoder.clear();
}

void CaptureLoop::fail(const char* reason) {
  if (fatal_) return;
  fatal_ = true;
  if (owner_.fatal_sink) owner_.fatal_sink(reason);
}

void CaptureLoop::teardown() {
  pointer_.drop_held_image();
  // The encoder's surfaces belong to the source's device, so it goes first.
  if (source_) source_->forget_surfaces();
  encoder_->close();
  source_.reset();
  ready_ = false;
}

void CaptureLoop::end() {
  teardown();
  desktop_->leave();
}

bool CaptureLoop::follow_input_desktop() {
  switch (desktop_->look()) {
    case InputDesktop::Look::Same:
      return true;
    case InputDesktop::Look::Unreachable:
      teardown();
      return false;
    case InputDesktop::Look::Other:
      break;
  }
  teardown();
  if (!desktop_->enter()) return false;
  pointer_.desktop_changed();
  return true;
}

bool CaptureLoop::geometry_valid() {
  DisplayInfo found;
  if (!platform_.find_display(settings_.display.device, &found)) return false;
  if (fixed_width_ != 0 && (found.width != fixed_width_ || found.height != fixed_height_)) {
    fail("display geometry changed; a fresh session is required");
    return false;
  }
  settings_.display = found;
  if (source_) source_->follow(found);
  return true;
}

EncoderSettings CaptureLoop::encoder_settings() const {
  EncoderSettings wanted;
  wanted.width = settings_.width;
  wanted.height = settings_.height;
  wanted.fps = settings_.fps;
  wanted.bitrate_kbps = settings_.bitrate_kbps;
  wanted.prefer_hevc = settings_.prefer_hevc;
  wanted.preferred = settings_.encoder;
  if (started_) {
    const std::lock_guard lock(active_.mutex);
    wanted.required = active_.encoder;
  }
  return wanted;
}

bool CaptureLoop::init_all() {
  ready_ = false;
  initialising_ = true;
  if (!follow_input_desktop() || !geometry_valid()) return false;
  if (fixed_width_ == 0) {
    fixed_width_ = settings_.display.width;
    fixed_height_ = settings_.display.height;
  }
  const EncoderSettings wanted = encoder_settings();
  if (!init_gpu(wanted)) {
    teardown();
    if (fatal_) return false;
    if (started_ && wanted.required != SOFTWARE_ENCODER) {
      fail("negotiated hardware encoder/capture no longer works; reconnect required");
      return false;
    }
    if (!init_memory(wanted)) return false;
  }
  if (!lund_cpu::session_ready(ready_, encoder_->is_open(), keyframe_good())) return false;
  publish_active();
  started_ = true;
  initialising_ = false;
  requests_.keyframe = true;
  return true;
}

bool CaptureLoop::init_gpu(const EncoderSettings& wanted) {
  if (!platform_.make_gpu_source) return false;
  DisplayInfo found;
  if (!platform_.find_display(settings_.display.device, &found) || !found.has_adapter) {
    hlog("video: display %s is gone", settings_.display.device.c_str());
    return false;
  }
  settings_.display = found;
  source_ = platform_.make_gpu_source();
  if (!source_->open({settings_.display, settings_.width, settings_.height, settings_.fps}) ||
      !subscribe() || !encoder_->open(source_->device(), wanted)) {
    return false;
  }
  first_picture();
  if (!source_->converter_ready() || fatal_) return false;
  ready_ = true;
  requests_.keyframe = true;
  encoded_.clear();
  const std::uint64_t now_us = lund_now_us();
  encode(now_us, now_us);
  return keyframe_good();
}

bool CaptureLoop::init_memory(const EncoderSettings& wanted) {
  source_ = platform_.make_memory_source();
  if (!source_->open({settings_.display, settings_.width, settings_.height, settings_.fps}) ||
      !subscribe() || !geometry_valid() || !first_picture() || !encoder_->open(nullptr, wanted)) {
    return false;
  }
  ready_ = true;
  requests_.keyframe = true;
  encoded_.clear();
  const std::uint64_t now_us = lund_now_us();
  encode(now_us, now_us);
  return true;
}

bool CaptureLoop::first_picture() {
  AcquiredPicture acquired;
  const AcquireResult result = source_->acquire(FIRST_PICTURE_WAIT_MS, requests_.wake, &acquired);
  if (result != AcquireResult::Picture && result != AcquireResult::PointerOnly) return false;
  const bool held = result == AcquireResult::Picture && on_picture(acquired);
  PointerSource* pointer = source_->traits().notifying ? source_->pointer() : nullptr;
  if (pointer && source_->converter_ready()) pointer_.on_pointer(*pointer);
  source_->release();
  return held;
}

bool CaptureLoop::subscribe() {
  SubscribeFailure failure;
  if (source_->subscribe(&settings_.display, &failure)) {
    subscribe_failures_ = 0;
    last_subscribe_code_ = 0;
    requests_.keyframe = true;
    return true;
  }
  note_subscribe_failure(failure);
  return false;
}

void CaptureLoop::note_subscribe_failure(const SubscribeFailure& failure) {
  ++subscribe_failures_;
  const std::uint64_t now_us = lund_now_us();
  if (failure.code != last_subscribe_code_ ||
      now_us - last_subscribe_log_us_ >= REPEATED_FAILURE_LOG_US) {
    hlog("video: %s; retrying", failure.text.c_str());
    last_subscribe_code_ = failure.code;
    last_subscribe_log_us_ = now_us;
  }
  if (failure.desktop_moved) follow_input_desktop();
}

bool CaptureLoop::keyframe_good() const {
  if (encoded_.empty() || !last_keyframe_) return false;
  return encoder_->is_hevc() ? lund_cpu::hevc_bootstrap(encoded_.data(), encoded_.size())
                             : lund_cpu::h264_bootstrap(encoded_.data(), encoded_.size());
}

void CaptureLoop::publish_active() {
  const std::lock_guard lock(active_.mutex);
  active_.encoder = encoder_->name();
  active_.is_hevc = encoder_->is_hevc();
  active_.backend = source_->traits().backend;
}

}  // namespace capture_internal
