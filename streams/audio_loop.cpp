#include "streams/audio_loop.h"

#include <algorithm>

#include "connection/clock.h"
#include "control/log.h"

namespace audio_internal {
namespace {

constexpr std::uint32_t PAUSE_MS = 100;
constexpr int PAUSES_AFTER_FAILURE = 20;  // 2 s

// As long as a turn lasts while no sound comes: the cadence of silence hangs on it.
constexpr std::uint32_t WAIT_MS = 10;
// A device that plays nothing delivers nothing. Longer than a late buffer takes to come.
constexpr std::uint64_t SILENCE_AFTER_US = 40'000;
constexpr std::uint64_t DEVICE_CHECK_US = 1'000'000;

constexpr std::uint32_t UNREADABLE_FORMAT = 0x80004005;  // E_FAIL

constexpr std::array<float, BLOCK_FLOATS> SILENT_BLOCK{};

}  // namespace

AudioLoop::AudioLoop(AudioSource& source, const AudioCapture& owner, StopRequest& request)
    : source_(source), owner_(owner), request_(request) {}

AudioLoop::~AudioLoop() {
  source_.close();
}

bool AudioLoop::open_encoder(const OpusSettings& settings) {
  return encoder_.open(settings);
}

bool AudioLoop::step() {
  if (request_.stop) return false;
  if (capturing_) {
    capture();
  } else if (pauses_left_ > 0) {
    --pauses_left_;
    request_.wake.wait(PAUSE_MS);
  } else {
    set_up();
  }
  return !request_.stop;
}

void AudioLoop::set_up() {
  const std::uint32_t error = start_source();
  if (error == 0 || request_.stop) return;
  hlog("audio: %s loopback setup failed (0x%08lx); retrying in 2 s", source_.name(),
       static_cast<unsigned long>(error));
  source_.close();
  pauses_left_ = PAUSES_AFTER_FAILURE;
}

// The system's own conversion is asked for first: it has a filter, and knows all formats.
std::uint32_t AudioLoop::start_source() {
  std::string device;
  MixFormat mix;
  if (const std::uint32_t error = source_.open(request_.stop, &device, &mix)) return error;
  format_ = CONVERTED_FORMAT;
  if (source_.prepare(request_.stop, AudioSource::Form::Converted) != 0) {
    const auto readable = readable_format(mix);
    if (!readable) return UNREADABLE_FORMAT;
    if (const auto error = source_.prepare(request_.stop, AudioSource::Form::AsMixed)) return error;
    format_ = *readable;
  }
  if (const std::uint32_t error = source_.start()) return error;
  hlog(
      "audio: loopback capture of the default output (%u Hz, %u ch%s) -> Opus 48 kHz stereo 10 ms "
      "128 kbps",
      mix.rate, unsigned{mix.channels}, format_.engine_converts ? ", engine converts" : "");
  resampler_.reset(format_.engine_converts ? 1.0 : mix.rate / double{OPUS_RATE});
  begin_capture(std::move(device));
  return 0;
}

void AudioLoop::begin_capture(std::string device) {
  device_ = std::move(device);
  pending_.clear();
  in_silence_ = false;
  last_data_us_ = last_device_check_us_ = lund_now_us();
  capturing_ = true;
}

void AudioLoop::restart() {
  source_.close();
  capturing_ = false;
}

void AudioLoop::capture() {
  source_.wait(WAIT_MS);
  if (const std::uint32_t error = drain()) {
    hlog("audio: capture stopped (0x%08lx: device changed or invalidated); restarting",
         static_cast<unsigned long>(error));
    restart();
    return;
  }
  encode_pending();
  keep_silence();
  follow_default_device();
}

std::uint32_t AudioLoop::drain() {
  for (;;) {
    AudioBuffer buffer;
    if (const std::uint32_t error = source_.next_buffer(&buffer)) return error;
    if (buffer.frames == 0) return 0;
    take(buffer);
  }
}

void AudioLoop::take(const AudioBuffer& buffer) {
  const std::uint64_t now_us = lund_now_us();
  last_data_us_ = now_us;
  const std::uint64_t stamp_us = buffer.device_us ? std::min(now_us, buffer.device_us) : now_us;
  const std::size_t floats = buffer.frames * STEREO;
  if (buffer.silent || !buffer.data) {
    scratch_.assign(floats, 0.0F);
  } else {
    scratch_.resize(floats);
    to_stereo(format_, buffer.data, buffer.frames, scratch_.data());
  }
  source_.release_buffer();
  if (in_silence_) pending_.clear();
  if (pending_.empty()) pending_us_ = stamp_us;
  in_silence_ = false;
  if (resampler_.changes_rate()) {
    resampler_.append(scratch_.data(), buffer.frames, &pending_);
  } else {
    pending_.insert(pending_.end(), scratch_.begin(), scratch_.end());
  }
}

void AudioLoop::encode_pending() {
  std::span<const float> left(pending_);
  for (; left.size() >= BLOCK_FLOATS; left = left.subspan(BLOCK_FLOATS)) {
    encode(left.first<BLOCK_FLOATS>(), pending_us_);
    pending_us_ += BLOCK_US;
  }
  pending_.erase(pending_.begin(), pending_.end() - static_cast<std::ptrdiff_t>(left.size()));
}

void AudioLoop::keep_silence() {
  const std::uint64_t now_us = lund_now_us();
  if (now_us - last_data_us_ <= SILENCE_AFTER_US) return;
  if (!in_silence_) {
    pending_.clear();
    next_silence_us_ = now_us;
    in_silence_ = true;
  }
  for (; next_silence_us_ + BLOCK_US <= now_us; next_silence_us_ += BLOCK_US) {
    encode(SILENT_BLOCK, next_silence_us_);
  }
}

void AudioLoop::follow_default_device() {
  const std::uint64_t now_us = lund_now_us();
  if (now_us - last_device_check_us_ <= DEVICE_CHECK_US) return;
  last_device_check_us_ = now_us;
  if (source_.default_device() == device_) return;
  hlog("audio: default output device changed; following it");
  restart();
}

void AudioLoop::encode(std::span<const float, BLOCK_FLOATS> block, std::uint64_t capture_us) {
  if (!encoder_.send(block)) return;
  for (auto packet = encoder_.receive(); !packet.empty(); packet = encoder_.receive()) {
    if (owner_.on_packet) owner_.on_packet(packet.data(), packet.size(), capture_us);
  }
}

}  // namespace audio_internal
