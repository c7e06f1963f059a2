// A second of sound on its way to packets: the processor time that the audio thread takes for it,
// from a real sound server and from memory, with libopus alone doing the same encoding beside it.
// Then the change of rate, beside a plain copy as the bound of what memory allows.
#include <benchmark/benchmark.h>
#include <opus.h>

#include <array>
#include <cmath>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "streams/audio_loop.h"
#include "tests/support/linux/sound_server.h"

using namespace audio_internal;

namespace {

constexpr int BLOCKS_A_SECOND = 100;

// A chord that moves, as music would; a plain sine is a special case to an encoder.
const std::vector<float>& music() {
  static const std::vector<float> samples = [] {
    std::vector<float> out;
    for (int i = 0; i < 48'000; ++i) {
      const double t = i / 48'000.0;
      const double swell = 0.6 + 0.4 * std::sin(9 * t);
      double left = 0;
      double right = 0;
      for (const double hz : {196.0, 246.9, 293.7, 587.3, 1'174.7, 3'520.0}) {
        left += 0.12 * swell * std::sin(6.2832 * hz * t + 3 * std::sin(5 * t));
        right += 0.12 * swell * std::sin(6.2832 * hz * 1.003 * t);
      }
      out.push_back(static_cast<float>(left));
      out.push_back(static_cast<float>(right));
    }
    return out;
  }();
  return samples;
}

double thread_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Always has the next 10 ms.
class MemorySource final : public AudioSource {
 public:
  explicit MemorySource(bool as_mixed) : as_mixed_(as_mixed) {}

  const char* name() const override { return "memory"; }
  std::uint32_t open(const std::atomic<bool>&, std::string*, MixFormat* mix) override {
    *mix = {.tag = 3, .rate = 44'100, .channels = 2, .bits = 32, .block_align = 8};
    return 0;
  }
  std::uint32_t prepare(const std::atomic<bool>&, Form form) override {
    return form == Form::Converted && as_mixed_;
  }
  void wait(std::uint32_t) override { waiting_ = true; }
  std::uint32_t next_buffer(AudioBuffer* out) override {
    *out = {};
    if (!std::exchange(waiting_, false)) return 0;
    out->frames = as_mixed_ ? 441 : 480;
    out->data = reinterpret_cast<const std::uint8_t*>(&music()[at_ * 2]);
    at_ = (at_ + out->frames) % (48'000 - 480);
    return 0;
  }
  void release_buffer() override {}
  std::string default_device() override { return {}; }
  void close() override {}

 private:
  bool as_mixed_;
  bool waiting_ = false;
  std::size_t at_ = 0;
};

// Each iteration a second of sound; its time is the thread's processor time.
void capture(benchmark::State& state, AudioSource& source) {
  struct Owner final : AudioCapture {
    void start() override {}
    void stop() override {}
  } owner;
  int packets = 0;
  std::uint64_t bytes = 0;
  owner.on_packet = [&](const std::uint8_t*, std::uint64_t size, std::uint64_t) {
    ++packets;
    bytes += size;
  };
  StopRequest request;
  AudioLoop loop(source, owner, request);
  if (!loop.open_encoder()) {
    state.SkipWithError("no encoder");
    return;
  }
  while (packets < BLOCKS_A_SECOND / 2) loop.step();
  std::uint64_t all = 0;
  for (auto _ : state) {
    packets = 0;
    const double before = thread_seconds();
    while (packets < BLOCKS_A_SECOND) loop.step();
    state.SetIterationTime(thread_seconds() - before);
    all += static_cast<std::uint64_t>(packets);
  }
  state.counters["packets"] =
      benchmark::Counter(static_cast<double>(all), benchmark::Counter::kAvgIterations);
  state.counters["packet_bytes"] =
      static_cast<double>(bytes) / (static_cast<double>(all) + BLOCKS_A_SECOND / 2.0);
}

void audio_thread_on_a_sound_server(benchmark::State& state) {
  const SoundServer server;
  const Tone tone(server);
  const auto source = make_native_audio_source();
  capture(state, *source);
}
BENCHMARK(audio_thread_on_a_sound_server)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

void audio_thread_on_memory(benchmark::State& state) {
  MemorySource source(false);
  capture(state, source);
}
BENCHMARK(audio_thread_on_memory)->UseManualTime()->Unit(benchmark::kMillisecond);

void audio_thread_on_memory_resampling(benchmark::State& state) {
  MemorySource source(true);
  capture(state, source);
}
BENCHMARK(audio_thread_on_memory_resampling)->UseManualTime()->Unit(benchmark::kMillisecond);

void libopus_alone(benchmark::State& state) {
  int error = OPUS_OK;
  OpusEncoder* encoder =
      opus_encoder_create(48'000, 2, OPUS_APPLICATION_RESTRICTED_LOWDELAY, &error);
  opus_encoder_ctl(encoder, OPUS_SET_BITRATE(128'000));
  opus_encoder_ctl(encoder, OPUS_SET_COMPLEXITY(10));
  opus_encoder_ctl(encoder, OPUS_SET_VBR(1));
  opus_encoder_ctl(encoder, OPUS_SET_VBR_CONSTRAINT(1));
  opus_encoder_ctl(encoder, OPUS_SET_PACKET_LOSS_PERC(10));
  std::array<std::uint8_t, 1'500> packet;
  std::size_t at = 0;
  double bytes = 0;
  double blocks = 0;
  for (auto _ : state) {
    const double before = thread_seconds();
    for (int i = 0; i < BLOCKS_A_SECOND; ++i, ++blocks) {
      bytes += opus_encode_float(encoder, &music()[at * 2], 480, packet.data(),
                                 static_cast<opus_int32>(packet.size()));
      at = (at + 480) % (48'000 - 480);
    }
    state.SetIterationTime(thread_seconds() - before);
  }
  state.counters["packet_bytes"] = bytes / blocks;
  opus_encoder_destroy(encoder);
}
BENCHMARK(libopus_alone)->UseManualTime()->Unit(benchmark::kMillisecond);

void resampler_second(benchmark::State& state) {
  Resampler resampler;
  resampler.reset(static_cast<double>(state.range(0)) / OPUS_RATE);
  std::vector<float> input(static_cast<std::size_t>(state.range(0)) * 2);
  for (std::size_t i = 0; i < input.size(); ++i) input[i] = music()[i % music().size()];
  std::vector<float> out;
  for (auto _ : state) {
    out.clear();
    resampler.append(input.data(), input.size() / 2, &out);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(resampler_second)->Arg(44'100)->Arg(96'000)->Unit(benchmark::kMicrosecond);

void copy_second(benchmark::State& state) {
  std::vector<float> out(music().size());
  for (auto _ : state) {
    std::memcpy(out.data(), music().data(), music().size() * sizeof(float));
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(copy_second)->Unit(benchmark::kMicrosecond);

}  // namespace
