#include "apps/client/view/latest_picture.h"

#include <utility>

bool LatestPicture::convert(const DecodedPicture& from, ShownPicture* to) {
  if (!scaler_ || scaler_width_ != from.width || scaler_height_ != from.height) {
    scaler_.reset(sws_getContext(from.width, from.height, AV_PIX_FMT_YUV420P, from.width,
                                 from.height, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr, nullptr,
                                 nullptr));
    if (!scaler_) return false;
    ffmpeg::set_bt709_full_range(scaler_.get());
    scaler_width_ = from.width;
    scaler_height_ = from.height;
  }
  to->width = from.width;
  to->height = from.height;
  to->pixels.resize(static_cast<std::size_t>(from.width) * static_cast<std::size_t>(from.height) *
                    4);
  std::uint8_t* planes[] = {to->pixels.data()};
  const int strides[] = {from.width * 4};
  return sws_scale(scaler_.get(), from.planes, from.strides, 0, from.height, planes, strides) ==
         from.height;
}

bool LatestPicture::offer(const DecodedPicture& picture, const FrameTimes& times,
                          std::uint64_t now_us) {
  ShownPicture& target = buffers_[filling_];
  if (!convert(picture, &target)) return false;
  target.times = times;
  target.decoded_us = now_us;
  target.serial = ++serial_;
  std::lock_guard lock(mutex_);
  replaced_ += fresh_;
  std::swap(filling_, waiting_);
  fresh_ = true;
  return true;
}

const ShownPicture* LatestPicture::take() {
  std::lock_guard lock(mutex_);
  if (!fresh_) return nullptr;
  std::swap(showing_, waiting_);
  fresh_ = false;
  return &buffers_[showing_];
}

std::uint64_t LatestPicture::replaced() const {
  std::lock_guard lock(mutex_);
  return replaced_;
}
