#include "apps/lunderhaze/doctor_probe.h"

#include <algorithm>
#include <array>
#include <atomic>

#include "apps/lunderhaze/console.h"
#include "capture/encoder.h"
#include "capture/source.h"
#include "capture/video.h"
#include "connection/clock.h"
#include "control/host_commands.h"
#include "control/keystore.h"
#include "control/options.h"
#include "control/switches.h"
#include "host/udp.h"
#include "streams/audio_source.h"
#include "streams/clipboard_access.h"

namespace {

constexpr std::uint32_t PICTURE_MS = 3'000;
// A server that plays nothing may have rendered 2 s of silence ahead.
constexpr std::uint64_t SOUND_US = 3'500'000;
constexpr std::uint32_t SOUND_WAIT_MS = 100;

constexpr int FRAME_WIDTH = 1'920;
constexpr int FRAME_HEIGHT = 1'080;
constexpr int BYTES_PER_PIXEL = 4;
constexpr int FRAMES = 9;

// A picture that moves, of areas and edges as desktops have them.
void draw(std::vector<std::uint8_t>* bgra, int frame) {
  std::uint8_t* pixel = bgra->data();
  for (int y = 0; y < FRAME_HEIGHT; ++y) {
    for (int x = 0; x < FRAME_WIDTH; ++x, pixel += BYTES_PER_PIXEL) {
      const int tile = ((x + 8 * frame) / 24) * 7 + (y / 18) * 13;
      pixel[0] = static_cast<std::uint8_t>(tile * 37);
      pixel[1] = static_cast<std::uint8_t>(tile * 11);
      pixel[2] = static_cast<std::uint8_t>(x / 8);
      pixel[3] = 0xFF;
    }
  }
}

std::uint64_t count_coloured(const MemoryPicture& picture) {
  std::uint64_t coloured = 0;
  for (std::int32_t y = 0; y < picture.height; ++y) {
    const std::uint8_t* pixel = picture.bgra + static_cast<std::ptrdiff_t>(y) * picture.stride;
    for (std::int32_t x = 0; x < picture.width; ++x, pixel += BYTES_PER_PIXEL)
      coloured += (pixel[0] | pixel[1] | pixel[2]) != 0 ? 1 : 0;
  }
  return coloured;
}

class NoListener final : public SoundEndpoints::Listener {
  void default_changed() override {}
  void mute_changed(const std::string&, bool) override {}
};

void listen_to_sound(SoundFacts* facts) {
  const std::atomic<bool> stop{false};
  const std::unique_ptr<AudioSource> source = make_native_audio_source();
  facts->facility = source->name();
  std::string device;
  MixFormat mix;
  facts->error = source->open(stop, &device, &mix);
  if (facts->error == 0) facts->error = source->prepare(stop, AudioSource::Form::Converted);
  if (facts->error == 0) facts->error = source->start();
  facts->delivers = facts->error == 0 && !source->sends_silence();
  const std::uint64_t deadline_us = lund_now_us() + SOUND_US;
  while (facts->error == 0 && !facts->delivers && lund_now_us() < deadline_us) {
    source->wait(SOUND_WAIT_MS);
    AudioBuffer buffer;
    facts->error = source->next_buffer(&buffer);
    facts->delivers = facts->error == 0 && buffer.frames != 0;
    if (facts->delivers) source->release_buffer();
  }
  source->close();
}

}  // namespace

DisplayFacts probe_display(const Platform& platform) {
  DisplayFacts facts;
  facts.server = doctor_platform::display_server();
  facts.obstacle = platform.display_obstacle();
  if (!facts.obstacle.empty())
    facts.advice = doctor_platform::display_advice();
  else
    facts.displays = platform.list_displays();
  return facts;
}

CaptureFacts probe_capture(const DisplayInfo& display) {
  CaptureFacts facts;
  facts.device = display.device;
  const auto fail = [&facts](const std::string& why) {
    facts.failure = why;
    return facts;
  };
  const std::unique_ptr<CaptureSource> source = native_capture_platform().make_memory_source();
  facts.backend = source->traits().backend;
  DisplayInfo target = display;
  SubscribeFailure failure;
  if (!source->open({display, display.width, display.height, HostOptions().fps}))
    return fail(facts.backend + " can't be opened");
  if (!source->subscribe(&target, &failure)) return fail(failure.text);
  const std::uint64_t start_us = lund_now_us();
  WakeEvent wake(WakeEvent::Reset::Manual);
  AcquiredPicture acquired;
  if (source->acquire(PICTURE_MS, wake, &acquired) != AcquireResult::Picture)
    return fail("no picture came");
  MemoryPicture picture;
  if (!source->hold() || !source->picture(&picture)) return fail("the picture couldn't be read");
  facts.time_us = lund_now_us() - start_us;
  facts.width = picture.width;
  facts.height = picture.height;
  facts.coloured_pixels = count_coloured(picture);
  source->release();
  return facts;
}

// As for a client: the pipeline goes back to the processor by itself.
std::optional<GraphicsFacts> probe_graphics(const DisplayInfo& display) {
  const CapturePlatform platform = native_capture_platform();
  if (!platform.make_gpu_source) return std::nullopt;
  GraphicsFacts facts;
  facts.device = display.device;
  VideoSettings settings;
  settings.display = display;
  settings.width = FRAME_WIDTH;
  settings.height = FRAME_HEIGHT;
  CapturePipeline capture(platform);
  if (capture.init(settings) &&
      capture.capture_backend() == platform.make_gpu_source()->traits().backend) {
    facts.encoder = capture.encoder_name();
    facts.hevc = capture.encoder_is_hevc();
  }
  return facts;
}

EncoderFacts probe_encoder() {
  EncoderFacts facts;
  VideoEncoder encoder;
  EncoderSettings settings;
  settings.width = FRAME_WIDTH;
  settings.height = FRAME_HEIGHT;
  if (!encoder.open(nullptr, settings)) return facts;
  std::vector<std::uint8_t> picture(std::size_t{FRAME_WIDTH} * FRAME_HEIGHT * BYTES_PER_PIXEL);
  std::array<std::uint64_t, FRAMES> times_us{};
  for (int frame = 0; frame < FRAMES; ++frame) {
    draw(&picture, frame);
    std::vector<std::uint8_t> bytes;
    bool keyframe = false;
    const std::uint64_t start_us = lund_now_us();
    if (!encoder.prepare_cpu_frame(picture.data(), picture.size(), FRAME_WIDTH, FRAME_HEIGHT,
                                   FRAME_WIDTH * BYTES_PER_PIXEL) ||
        !encoder.end_frame(frame == 0, &bytes, &keyframe) || bytes.empty())
      return facts;
    times_us[static_cast<std::size_t>(frame)] = lund_now_us() - start_us;
  }
  std::ranges::sort(times_us);
  facts.name = encoder.name();
  facts.hevc = encoder.is_hevc();
  facts.best_us = times_us.front();
  facts.frame_us = times_us[FRAMES / 2];
  return facts;
}

InputFacts probe_input(const Platform& platform) {
  const std::unique_ptr<InputSink> sink = platform.make_input();
  const InputSink::Words words = sink->words();
  const OwnedDesktop desktop(*sink, sink->open_input_desktop());
  return {static_cast<bool>(desktop), words.facility, words.usual_cause};
}

ClipboardFacts probe_clipboard() {
  ClipboardFacts facts;
  facts.shared = load_clipboard_sync(keystore::hostStoreDirectory());
  const std::unique_ptr<ClipboardAccess> clipboard = make_clipboard_access();
  facts.exists = clipboard->start([](const std::string&) {});
  if (!facts.exists) return facts;
  facts.answers = clipboard->open();
  if (facts.answers) clipboard->close();
  clipboard->finish();
  return facts;
}

SoundFacts probe_sound(const Platform& platform) {
  SoundFacts facts;
  NoListener listener;
  const std::unique_ptr<SoundEndpoints> endpoints = platform.make_sound_endpoints();
  if (!endpoints->open(&listener, &facts.unreachable)) {
    facts.advice = doctor_platform::SOUND_ADVICE;
    return facts;
  }
  facts.output = endpoints->default_output();
  if (!facts.output.empty()) {
    facts.muted = endpoints->is_muted(facts.output) == 1;
    facts.can_be_muted = endpoints->can_mute(facts.output);
    listen_to_sound(&facts);
  }
  endpoints->close();
  return facts;
}

PortFacts probe_port(std::optional<std::uint16_t> port) {
  PortFacts facts;
  std::string text;
  const HostReply reply = ask_host(keystore::hostStoreDirectory(), {}, &text);
  facts.silent_host = reply != HostReply::Done && reply != HostReply::NotRunning;
  if (reply == HostReply::Done) facts.host_port = reported_port(text);
  facts.port = port.value_or(facts.host_port.value_or(HostOptions().port));
  if (facts.host_port == facts.port) return facts;
  UdpSocket socket;
  if (!socket.open(facts.port, &facts.failure))
    facts.holder = doctor_platform::port_holder(facts.port);
  return facts;
}

std::vector<RelayFacts> probe_relays() {
  const lund_relay_config relays = keystore::load_relays();
  const std::vector<RelayCheck> checks = check_relays(relays, RELAY_CHECK_MS);
  std::vector<RelayFacts> facts;
  for (std::size_t i = 0; i < checks.size(); ++i)
    facts.push_back({relay_name(relays.servers[i]), checks[i]});
  return facts;
}

StoreFacts probe_store() {
  using Directory = StoreFacts::Directory;
  StoreFacts facts;
  const std::filesystem::path directory = keystore::hostStoreDirectory();
  facts.advice = doctor_platform::store_advice(directory);
  if (directory.empty()) return facts;
  facts.path = directory.string();
  std::error_code error;
  const std::filesystem::file_status status = std::filesystem::status(directory, error);
  if (status.type() == std::filesystem::file_type::directory) {
    facts.directory = Directory::Exists;
    const doctor_platform::Ownership owned = doctor_platform::ownership(directory);
    facts.writable = owned.writable;
    facts.foreign = owned.foreign;
    facts.exposed = owned.exposed;
    const std::filesystem::space_info space = std::filesystem::space(directory, error);
    if (!error) facts.room_bytes = space.available;
    facts.files = keystore::inspect_store();
  } else if (status.type() == std::filesystem::file_type::not_found) {
    facts.directory = Directory::Missing;
    facts.writable = doctor_platform::may_be_made(directory);
  } else {
    facts.directory = Directory::NoDirectory;
  }
  return facts;
}
