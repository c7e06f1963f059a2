// The loop: when to acquire, when to encode, what to do about a capture that fails.
#include <algorithm>
#include <cstdio>
#include <string>

#include "capture/video_internal.h"
#include "connection/clock.h"
#include "control/log.h"

namespace capture_internal {
namespace {

constexpr std::uint32_t NO_DESKTOP_PAUSE_MS = 200;
constexpr std::uint32_t POLL_FAILED_PAUSE_MS = 200;
constexpr std::uint32_t SUBSCRIBE_FAILED_PAUSE_MS = 200;
constexpr std::uint32_t INIT_FAILED_PAUSE_MS = 2000;
constexpr std::uint32_t ACQUIRE_FAILED_PAUSE_MS = 100;
constexpr std::int32_t SUBSCRIBE_FAILURES_KEPT = 14;  // beyond it the whole capture is rebuilt

constexpr std::int64_t LONGEST_WAIT_US = 50'000;
// A picture acquired no longer ago counts as submitted when it was acquired.
constexpr std::uint64_t FRESH_US = 501;

std::int64_t until(std::uint64_t when_us, std::uint64_t now_us) {
  return static_cast<std::int64_t>(when_us) - static_cast<std::int64_t>(now_us);
}

std::uint32_t whole_ms(std::int64_t us) {
  return us <= 0 ? 0 : static_cast<std::uint32_t>((us + 999) / 1000);
}

}  // namespace

std::int64_t CaptureLoop::frame_us() const {
  return 1'000'000 / std::max(settings_.fps, 1);
}
std::int64_t CaptureLoop::min_encode_us() const {
  return frame_us() * 9 / 10;
}
std::int64_t CaptureLoop::repeat_us() const {
  return frame_us() * 3 / 2;
}

void CaptureLoop::pause_ms(std::uint32_t ms) {
  requests_.wake.wait(ms);
}

void CaptureLoop::forget_picture() {
  have_picture_ = false;
  pending_ = false;
}

void CaptureLoop::begin_run() {
  have_picture_ = source_ && source_->traits().notifying && source_->has_picture();
  pending_ = have_picture_;
  last_encode_us_ = 0;
  last_picture_us_ = 0;
  capture_us_ = acquire_us_ = lund_now_us();
}

bool CaptureLoop::pass() {
  if (over()) return false;
  const std::string former = desktop_->name();
  if (!follow_input_desktop()) {
    pause_ms(NO_DESKTOP_PAUSE_MS);
    forget_picture();
    return !over();
  }
  if (desktop_->name() != former) forget_picture();
  pointer_.deliver_held_image();
  if (!ready_ && !init_all()) {
    teardown();
    if (!fatal_) pause_ms(INIT_FAILED_PAUSE_MS);
    return !over();
  }
  if (source_->traits().notifying) {
    notified_pass();
  } else {
    polled_pass();
  }
  return !over();
}

// Without word of changes the screen is captured at the full rate all the time.
void CaptureLoop::polled_pass() {
  const std::uint64_t begin_us = lund_now_us();
  AcquiredPicture acquired;
  if (!geometry_valid() ||
      source_->acquire(0, requests_.wake, &acquired) != AcquireResult::Picture ||
      !source_->hold()) {
    teardown();
    pause_ms(POLL_FAILED_PAUSE_MS);
    return;
  }
  source_->release();
  encode(begin_us, begin_us);
  if (!ready_) return;
  if (PointerSource* pointer = source_->pointer()) pointer_.gdi_pointer(*pointer);
  report_pointer();
  const std::int64_t left_us = frame_us() + until(begin_us, lund_now_us());
  if (left_us > 0) pause_ms(whole_ms(left_us));
}

void CaptureLoop::notified_pass() {
  if (!have_picture_ && source_->has_picture()) {
    // Right after a set-up or a change of the desktop: what is held goes out without waiting for
    // the screen to change.
    capture_us_ = acquire_us_ = lund_now_us();
    have_picture_ = pending_ = true;
  }
  if (!keep_subscribed()) return;
  AcquiredPicture acquired;
  const AcquireResult result = source_->acquire(acquire_wait_ms(), requests_.wake, &acquired);
  if (take(result, acquired) == Step::NextPass) return;
  encode_when_due();
  report_pointer();
  if (source_ && !source_->alive()) {
    teardown();
    forget_picture();
  }
}

bool CaptureLoop::keep_subscribed() {
  if (source_->subscribed() || subscribe()) return true;
  if (subscribe_failures_ > SUBSCRIBE_FAILURES_KEPT) {
    hlog("video: rebuilding the capture device");
    teardown();
    subscribe_failures_ = 0;
  }
  pause_ms(SUBSCRIBE_FAILED_PAUSE_MS);
  return false;
}

// Such that the loop wakes exactly when pacing, the repeat of a keyframe or the pointer need it.
std::uint32_t CaptureLoop::acquire_wait_ms() const {
  const std::uint64_t now_us = lund_now_us();
  std::int64_t wait_us = LONGEST_WAIT_US;
  if (pending_) {
    wait_us = std::min(wait_us, until(last_encode_us_, now_us) + min_encode_us());
  } else if (requests_.keyframe && have_picture_) {
    wait_us = std::min(wait_us, until(last_picture_us_, now_us) + repeat_us());
  }
  if (const auto due_us = pointer_.due_us()) wait_us = std::min(wait_us, until(*due_us, now_us));
  return whole_ms(wait_us);
}

CaptureLoop::Step CaptureLoop::take(AcquireResult result, const AcquiredPicture& acquired) {
  const std::uint64_t now_us = lund_now_us();
  switch (result) {
    case AcquireResult::TimeOut:
      return Step::Continue;
    case AcquireResult::Lost:
      teardown();
      forget_picture();
      return Step::NextPass;
    case AcquireResult::Gone:
      teardown();
      pause_ms(ACQUIRE_FAILED_PAUSE_MS);
      return Step::NextPass;
    case AcquireResult::Busy:
      source_->unsubscribe();
      pause_ms(ACQUIRE_FAILED_PAUSE_MS);
      return Step::NextPass;
    case AcquireResult::Picture:
      if (on_picture(acquired)) {
        acquire_us_ = last_picture_us_ = now_us;
        have_picture_ = pending_ = true;
        capture_us_ = acquired.present_us ? std::min(acquired.present_us, now_us) : now_us;
      }
      break;
    case AcquireResult::PointerOnly:
      break;
  }
  if (PointerSource* pointer = source_->pointer()) {
    pointer_.on_pointer(*pointer);
    pointer_.deliver_held_image();
  }
  source_->release();
  return fatal_ ? Step::NextPass : Step::Continue;
}

bool CaptureLoop::on_picture(const AcquiredPicture& acquired) {
  if (acquired.width != fixed_width_ || acquired.height != fixed_height_) {
    const std::string backend = source_->traits().backend;
    const std::string reason =
        backend.substr(0, backend.find(' ')) + " capture geometry changed; reconnect required";
    fail(reason.c_str());
    return false;
  }
  return source_->hold();
}

void CaptureLoop::encode_when_due() {
  const std::uint64_t now_us = lund_now_us();
  if (pending_) {
    if (until(now_us, last_encode_us_) < min_encode_us()) return;
    encode(capture_us_, now_us - acquire_us_ < FRESH_US ? acquire_us_ : now_us);
    pending_ = false;
    last_encode_us_ = now_us;
    return;
  }
  if (!requests_.keyframe || !have_picture_) return;
  if (until(now_us, last_picture_us_) < repeat_us()) return;
  encode(now_us, now_us);
  last_picture_us_ = last_encode_us_ = now_us;
}

void CaptureLoop::report_pointer() {
  const std::uint64_t now_us = lund_now_us();
  if (PointerSource* pointer = source_ ? source_->pointer() : nullptr)
    pointer_.route_cursor(*pointer, now_us);
  pointer_.flush_pointer(now_us);
}

}  // namespace capture_internal
