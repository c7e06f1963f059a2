#include "capture/video.h"

#include <future>
#include <optional>
#include <thread>

#include "capture/source.h"
#include "capture/video_internal.h"

using namespace capture_internal;

namespace {
constexpr std::uint32_t START_POLL_MS = 100;
}

struct CapturePipeline::Impl {
  Impl(CapturePlatform platform, VideoCapture& owner)
      : loop(std::move(platform), owner, requests, active) {}

  void thread_body(std::promise<bool> initialised);
  void join();

  CaptureRequests requests;
  ActiveCapture active;
  CaptureLoop loop;
  std::thread thread;
};

void CapturePipeline::Impl::thread_body(std::promise<bool> initialised) {
  std::optional<CaptureThreadPriority> priority;  // until all is released
  const bool up = loop.init_all();
  initialised.set_value(up);
  if (up) {
    while (!requests.start && !requests.stop && !loop.fatal()) requests.wake.wait(START_POLL_MS);
    requests.wake.reset();
    if (!requests.stop) {
      priority.emplace();
      loop.begin_run();
      while (loop.pass()) {
      }
    }
  }
  loop.end();
}

void CapturePipeline::Impl::join() {
  if (!thread.joinable()) return;
  requests.stop = true;
  requests.wake.set();
  thread.join();
}

CapturePipeline::CapturePipeline(CapturePlatform platform)
    : impl_(std::make_unique<Impl>(std::move(platform), *this)) {}

CapturePipeline::~CapturePipeline() {
  impl_->join();
}

bool CapturePipeline::init(const VideoSettings& settings) {
  impl_->join();
  impl_->loop.reset(settings);
  impl_->requests.start = false;
  impl_->requests.stop = false;
  impl_->requests.bitrate_kbps = 0;
  impl_->requests.wake.reset();
  std::promise<bool> promise;
  std::future<bool> initialised = promise.get_future();
  impl_->thread = std::thread(&Impl::thread_body, impl_.get(), std::move(promise));
  const bool up = initialised.get();
  if (!up) impl_->join();
  return up;
}

void CapturePipeline::start() {
  if (!impl_->thread.joinable()) return;
  impl_->requests.start = true;
  impl_->requests.wake.set();
}

void CapturePipeline::stop() {
  impl_->join();
}

void CapturePipeline::request_keyframe() {
  impl_->requests.keyframe = true;
}

void CapturePipeline::set_bitrate(int kbps) {
  impl_->requests.bitrate_kbps = kbps;
}

bool CapturePipeline::encoder_is_hevc() const {
  const std::lock_guard lock(impl_->active.mutex);
  return impl_->active.is_hevc;
}

std::string CapturePipeline::encoder_name() const {
  const std::lock_guard lock(impl_->active.mutex);
  return impl_->active.encoder;
}

std::string CapturePipeline::capture_backend() const {
  const std::lock_guard lock(impl_->active.mutex);
  return impl_->active.backend;
}
