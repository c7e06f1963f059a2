#include "apps/client/view/playout.h"

#include <algorithm>
#include <cassert>

namespace {

constexpr std::size_t FADE_FRAMES = 96;          // 2 ms: no click
constexpr std::size_t LOOK_FRAMES = 24'000;      // the reserve is looked at each 0.5 s
constexpr std::size_t CORRECTION_SPACING = 200;  // frames between two corrections: 0.5 %
constexpr std::size_t TOLERANCE_FRAMES = 120;    // 2.5 ms around the target are left alone

}  // namespace

PlayoutBuffer::PlayoutBuffer(PlayoutLimits limits) : limits_(limits), ring_(limits.max_frames) {
  assert(limits.target_frames > 0 && limits.target_frames < limits.max_frames);
}

void PlayoutBuffer::note_level(std::size_t device_frames) {
  figures_.buffered_frames = level_ + device_frames;
  figures_.most_frames = std::max(figures_.most_frames, figures_.buffered_frames);
}

void PlayoutBuffer::push(const float* samples, std::size_t frames, std::size_t device_frames) {
  const std::size_t room = limits_.max_frames - std::min(device_frames, limits_.max_frames);
  if (frames > room) {
    const std::size_t excess = frames - room;
    samples += excess * CHANNELS;
    frames = room;
    figures_.frames_dropped += excess;
  }
  if (level_ + frames > room) {
    // What the device has taken since its last portion is what more is due here.
    const std::size_t taken = device_full_ - std::min(device_frames, device_full_);
    const std::size_t wanted = limits_.target_frames + taken;
    const std::size_t keep = std::min(wanted, room) - std::min(frames, std::min(wanted, room));
    const std::size_t dropped = level_ - std::min(level_, keep);
    head_ = (head_ + dropped) % ring_.size();
    level_ -= dropped;
    ++figures_.overruns;
    figures_.frames_dropped += dropped;
    lowest_ = SIZE_MAX;
  }
  for (std::size_t i = 0; i < frames; ++i) {
    ring_[(head_ + level_) % ring_.size()] = {samples[CHANNELS * i], samples[CHANNELS * i + 1]};
    ++level_;
  }
  note_level(device_frames);
}

PlayoutBuffer::Frame PlayoutBuffer::pop() {
  const Frame frame = ring_[head_];
  head_ = (head_ + 1) % ring_.size();
  --level_;
  return frame;
}

PlayoutBuffer::Frame PlayoutBuffer::play_one(bool may_insert) {
  auto middle = [](const Frame& a, const Frame& b) {
    return Frame{0.5F * (a[0] + b[0]), 0.5F * (a[1] + b[1])};
  };
  if (corrections_left_ > 0 && until_correction_-- == 0) {
    until_correction_ = CORRECTION_SPACING;
    --corrections_left_;
    if (correction_ == Correction::Insert) {
      if (!may_insert) return pop();
      ++figures_.frames_inserted;
      return middle(last_, ring_[head_]);
    }
    if (level_ > 1) {
      ++figures_.frames_merged;
      const Frame first = pop();
      return middle(first, pop());
    }
  }
  return pop();
}

void PlayoutBuffer::run_dry() {
  if (!playing_) return;
  playing_ = false;
  fade_ = FADE_FRAMES;
  corrections_left_ = 0;
  lowest_ = SIZE_MAX;
  looked_frames_ = 0;
  ++figures_.underruns;
}

void PlayoutBuffer::pull(float* out, std::size_t frames, std::size_t device_frames) {
  device_full_ = device_frames;
  // What is taken at once must be there at once, with the reserve behind it.
  if (!playing_ && level_ >= std::min(limits_.target_frames + frames, limits_.max_frames))
    playing_ = true;
  for (std::size_t i = 0; i < frames; ++i) {
    if (playing_ && level_ == 0) run_dry();
    Frame frame{};
    if (playing_) {
      // What is inserted stays here one frame longer; the others go over to the device.
      frame = last_ = play_one(level_ + device_frames < limits_.max_frames + (frames - i));
      ++figures_.played_frames;
    } else if (fade_ > 0) {
      --fade_;
      const float left = static_cast<float>(fade_) / static_cast<float>(FADE_FRAMES);
      frame = {last_[0] * left, last_[1] * left};
    }
    out[CHANNELS * i] = frame[0];
    out[CHANNELS * i + 1] = frame[1];
  }
  if (playing_) look_at_reserve(frames);
  note_level(device_frames);
}

void PlayoutBuffer::look_at_reserve(std::size_t pulled) {
  lowest_ = std::min(lowest_, level_);
  looked_frames_ += pulled;
  if (looked_frames_ < LOOK_FRAMES) return;
  corrections_left_ = 0;
  if (lowest_ != SIZE_MAX && lowest_ > limits_.target_frames + TOLERANCE_FRAMES) {
    correction_ = Correction::Merge;
    corrections_left_ = lowest_ - limits_.target_frames;
  } else if (lowest_ != SIZE_MAX && lowest_ + TOLERANCE_FRAMES < limits_.target_frames) {
    correction_ = Correction::Insert;
    corrections_left_ = limits_.target_frames - lowest_;
  }
  looked_frames_ = 0;
  lowest_ = SIZE_MAX;
}

void PlayoutBuffer::clear() {
  head_ = level_ = 0;
  if (playing_) fade_ = FADE_FRAMES;
  playing_ = false;
  corrections_left_ = 0;
  lowest_ = SIZE_MAX;
  looked_frames_ = 0;
  figures_.buffered_frames = 0;
}
