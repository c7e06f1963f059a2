#include "streams/linux/pulse_source.h"

#include <algorithm>

#include "connection/clock.h"
#include "streams/linux/pulse_default_sink.h"

namespace {

constexpr std::uint64_t ANSWER_DEADLINE_US = 5'000'000;
constexpr std::uint64_t STOP_CHECK_US = 20'000;

// What the server sends at a time: one Opus block.
constexpr pa_usec_t FRAGMENT_US = 10'000;
// What waits for a thread that is held up. Beyond it the server drops sound, but what is in sockets
// and what libpulse believes of its age stays behind, so the recording is begun anew.
constexpr pa_usec_t LONGEST_BACKLOG_US = 200'000;

constexpr auto SERVER_DEFAULT = ~std::uint32_t{0};  // of a buffer attribute

constexpr auto STREAM_FLAGS = static_cast<pa_stream_flags_t>(
    PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING |
    // The server would move it to another source when its own goes; which one is followed is
    // decided by the default sink alone.
    PA_STREAM_DONT_MOVE);

MixFormat mix_format(const pa_sample_spec& spec) {
  constexpr std::uint16_t PCM = 1;
  constexpr std::uint16_t IEEE_FLOAT = 3;
  MixFormat mix;
  switch (spec.format) {
    case PA_SAMPLE_S16LE:
    case PA_SAMPLE_S24LE:
    case PA_SAMPLE_S32LE:
      mix.tag = PCM;
      break;
    case PA_SAMPLE_FLOAT32LE:
      mix.tag = IEEE_FLOAT;
      break;
    default:
      break;
  }
  mix.rate = spec.rate;
  mix.channels = spec.channels;
  mix.bits = static_cast<std::uint16_t>(pa_sample_size(&spec) * 8);
  mix.block_align = static_cast<std::uint16_t>(pa_frame_size(&spec));
  return mix;
}

}  // namespace

std::unique_ptr<AudioSource> make_native_audio_source() {
  return std::make_unique<PulseSource>();
}

PulseSource::~PulseSource() {
  close();
}

bool PulseSource::turn(std::uint64_t wait_us) {
  return pa_mainloop_prepare(loop_, static_cast<int>(wait_us)) >= 0 &&
         pa_mainloop_poll(loop_) >= 0 && pa_mainloop_dispatch(loop_) >= 0;
}

template <typename Done>
std::uint32_t PulseSource::run_until(const std::atomic<bool>& stop, Done done) {
  const std::uint64_t deadline_us = lund_now_us() + ANSWER_DEADLINE_US;
  while (!done()) {
    if (stop || lund_now_us() >= deadline_us) return PA_ERR_TIMEOUT;
    if (!turn(STOP_CHECK_US)) return PA_ERR_INTERNAL;
  }
  return 0;
}

std::uint32_t PulseSource::finish(const std::atomic<bool>& stop, pa_operation* operation) {
  if (!operation) return error();
  const std::uint32_t result = run_until(
      stop, [operation] { return pa_operation_get_state(operation) != PA_OPERATION_RUNNING; });
  if (result != 0) pa_operation_cancel(operation);
  pa_operation_unref(operation);
  return result;
}

// Only for when something has failed.
std::uint32_t PulseSource::error() const {
  const int number = context_ ? pa_context_errno(context_) : PA_ERR_BADSTATE;
  return number > 0 ? static_cast<std::uint32_t>(number) : std::uint32_t{PA_ERR_UNKNOWN};
}

std::uint32_t PulseSource::connect(const std::atomic<bool>& stop) {
  loop_ = pa_mainloop_new();
  if (!loop_) return PA_ERR_INTERNAL;
  context_ = pa_context_new(pa_mainloop_get_api(loop_), "Lunderhaze");
  if (!context_) return PA_ERR_INTERNAL;
  // Whose session it is decides which sound server runs, not who listens to it.
  if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) return error();
  const auto settled = [this] {
    const pa_context_state_t state = pa_context_get_state(context_);
    return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
  };
  if (const std::uint32_t result = run_until(stop, settled)) return result;
  return pa_context_get_state(context_) == PA_CONTEXT_READY ? 0 : error();
}

std::uint32_t PulseSource::open(const std::atomic<bool>& stop, std::string* device,
                                MixFormat* mix) {
  if (const std::uint32_t result = connect(stop)) return result;
  pa_context_set_subscribe_callback(context_, on_change, this);
  pa_operation* subscribing =
      pa_context_subscribe(context_, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr);
  if (const std::uint32_t result = finish(stop, subscribing)) return result;
  default_sink_.clear();
  pa_operation* asking = pa_context_get_server_info(context_, on_server_info, this);
  if (const std::uint32_t result = finish(stop, asking)) return result;
  const std::string sink = default_sink_;
  if (sink.empty()) return PA_ERR_NOENTITY;
  monitor_.clear();
  asking = pa_context_get_sink_info_by_name(context_, sink.c_str(), on_sink_info, this);
  if (const std::uint32_t result = finish(stop, asking)) return result;
  if (monitor_.empty()) return PA_ERR_NOENTITY;
  *device = sink;
  *mix = mix_format(mix_);
  return 0;
}

void PulseSource::on_server_info(pa_context*, const pa_server_info* info, void* self) {
  if (!info) return;
  // What is recorded goes on until the next one is known.
  std::string sink = default_sink_of(*info);
  if (!sink.empty()) static_cast<PulseSource*>(self)->default_sink_ = std::move(sink);
}

void PulseSource::on_sink_info(pa_context*, const pa_sink_info* info, int, void* self) {
  if (!info) return;
  auto* source = static_cast<PulseSource*>(self);
  source->monitor_ = info->monitor_source_name ? info->monitor_source_name : "";
  source->mix_ = info->sample_spec;
  source->mix_map_ = info->channel_map;
}

void PulseSource::on_change(pa_context* context, pa_subscription_event_type_t, std::uint32_t,
                            void* self) {
  pa_operation* asking = pa_context_get_server_info(context, on_server_info, self);
  if (asking) pa_operation_unref(asking);
}

std::uint32_t PulseSource::prepare(const std::atomic<bool>& stop, Form form) {
  end_stream();
  constexpr pa_sample_spec CONVERTED{PA_SAMPLE_FLOAT32LE, 48'000, 2};
  const bool converted = form == Form::Converted;
  const pa_sample_spec& spec = converted ? CONVERTED : mix_;
  stream_ = pa_stream_new(context_, "what the host plays", &spec, converted ? nullptr : &mix_map_);
  if (!stream_) return error();
  frame_bytes_ = static_cast<std::uint32_t>(pa_frame_size(&spec));
  const auto bytes = [&spec](pa_usec_t us) {
    return static_cast<std::uint32_t>(pa_usec_to_bytes(us, &spec));
  };
  const pa_buffer_attr buffer{bytes(LONGEST_BACKLOG_US), SERVER_DEFAULT, SERVER_DEFAULT,
                              SERVER_DEFAULT, bytes(FRAGMENT_US)};
  if (pa_stream_connect_record(stream_, monitor_.c_str(), &buffer, STREAM_FLAGS) < 0)
    return error();
  const auto settled = [this] { return pa_stream_get_state(stream_) != PA_STREAM_CREATING; };
  if (const std::uint32_t result = run_until(stop, settled)) return result;
  last_wait_us_ = lund_now_us();
  return recording() ? 0 : error();
}

bool PulseSource::recording() const {
  return stream_ && pa_stream_get_state(stream_) == PA_STREAM_READY;
}

void PulseSource::wait(std::uint32_t wait_ms) {
  std::uint64_t now_us = lund_now_us();
  const std::uint64_t deadline_us = now_us + std::uint64_t{wait_ms} * 1'000;
  if (now_us - last_wait_us_ > LONGEST_BACKLOG_US) end_stream();
  for (;; now_us = lund_now_us()) {
    last_wait_us_ = now_us;
    // The loop turns even where sound waits already: it brings the news of the server too.
    const bool ready = !recording() || pa_stream_readable_size(stream_) > 0;
    const bool over = ready || now_us >= deadline_us;
    if (!turn(over ? 0 : deadline_us - now_us)) end_stream();
    if (over) return;
  }
}

std::uint32_t PulseSource::next_buffer(AudioBuffer* out) {
  *out = {};
  if (!recording()) return error();
  const void* data = nullptr;
  std::size_t bytes = 0;
  if (pa_stream_peek(stream_, &data, &bytes) < 0) return error();
  if (bytes == 0) return 0;
  // Without data it is a hole in the recording.
  out->data = static_cast<const std::uint8_t*>(data);
  out->frames = static_cast<std::uint32_t>(bytes / frame_bytes_);
  // How long ago what is peeked at was played; a negative one is still on its way to the speakers.
  pa_usec_t age_us = 0;
  int negative = 0;
  if (pa_stream_get_latency(stream_, &age_us, &negative) == 0) {
    const std::uint64_t now_us = lund_now_us();
    out->device_us = negative ? now_us : now_us - std::min<pa_usec_t>(age_us, now_us);
  }
  return 0;
}

void PulseSource::release_buffer() {
  pa_stream_drop(stream_);
}

std::string PulseSource::default_device() {
  return default_sink_;
}

void PulseSource::end_stream() {
  if (!stream_) return;
  pa_stream_disconnect(stream_);
  pa_stream_unref(stream_);
  stream_ = nullptr;
}

void PulseSource::close() {
  end_stream();
  if (context_) {
    pa_context_disconnect(context_);
    pa_context_unref(context_);
    context_ = nullptr;
  }
  if (loop_) pa_mainloop_free(loop_);
  loop_ = nullptr;
}
