#include "streams/audio.h"

#include <thread>

#include "streams/audio_loop.h"
#include "streams/audio_source.h"

using audio_internal::AudioLoop;
using audio_internal::StopRequest;

struct OpusAudioCapture::Impl {
  std::function<std::unique_ptr<AudioSource>()> make_source;
  StopRequest request;
  std::thread thread;
};

OpusAudioCapture::OpusAudioCapture(std::function<std::unique_ptr<AudioSource>()> make_source)
    : impl_(std::make_unique<Impl>()) {
  impl_->make_source = std::move(make_source);
}

OpusAudioCapture::~OpusAudioCapture() {
  stop();
}

void OpusAudioCapture::start() {
  if (impl_->thread.joinable()) return;
  impl_->request.stop = false;
  impl_->request.wake.reset();
  impl_->thread = std::thread([this] {
    const AudioThreadPriority priority;
    const std::unique_ptr<AudioSource> source = impl_->make_source();
    AudioLoop loop(*source, *this, impl_->request);
    if (!loop.open_encoder()) return;
    while (loop.step()) {
    }
  });
}

void OpusAudioCapture::stop() {
  if (!impl_->thread.joinable()) return;
  impl_->request.stop = true;
  impl_->request.wake.set();
  impl_->thread.join();
}
