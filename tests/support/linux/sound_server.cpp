#include "tests/support/linux/sound_server.h"

#include <gtest/gtest.h>
#include <pulse/error.h>
#include <pulse/simple.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <numbers>

#include "connection/clock.h"
#include "tests/support/spectrum.h"

namespace {

constexpr std::chrono::seconds START_DEADLINE{20};
// Else an idle sink renders 2 s of silence ahead, which its monitor then has to get through.
const std::string SINK_OPTIONS = "norewinds=1";
// It leaves by itself some time after its test was killed.
constexpr const char* EXIT_WHEN_IDLE = "--exit-idle-time=600";

constexpr int RATE = 48'000;
constexpr int BLOCK_FRAMES = RATE / 100;
// 200 ms, so that a busy computer doesn't tear it.
// 200 ms, so that a busy computer doesn't tear it.
constexpr unsigned PLAY_AHEAD_BYTES = 20 * BLOCK_FRAMES * 2 * sizeof(float);
constexpr std::uint32_t ANY = ~0U;  // of a buffer's sizes

}  // namespace

AnySoundServer::AnySoundServer(std::string sink_options)
    : sink_options_(std::move(sink_options)),
      server_name_("PULSE_SERVER", address().c_str()),
      cookie_("PULSE_COOKIE", (directory_ / "cookie").c_str()) {}

std::string AnySoundServer::address() const {
  return "unix:" + (directory_ / "native").string();
}

std::map<std::string, std::string> AnySoundServer::environment() const {
  return {{"PULSE_SERVER", address()}, {"PULSE_COOKIE", directory_ / "cookie"}};
}

bool AnySoundServer::accepts_clients(const std::filesystem::path& socket_path) {
  const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket_path.c_str(), sizeof address.sun_path - 1);
  const bool accepted =
      connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(client);
  return accepted;
}

void AnySoundServer::wait_for_clients(ChildProcess& server) {
  const auto until = std::chrono::steady_clock::now() + START_DEADLINE;
  while (!(running_ = accepts_clients(directory_ / "native")) &&
         std::chrono::steady_clock::now() < until) {
    // No output holds this text, so each turn reads what has come.
    server.wait_for_output({"\0", 1}, std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(running_) << "the sound server did not start; it said:\n" << server.output();
}

SoundServer::SoundServer() : AnySoundServer(SINK_OPTIONS) {
  start();
}

void SoundServer::start() {
  // The socket comes last: who gets through to it finds the sink.
  write_file(directory_ / "script",
             "load-module module-null-sink sink_name=out rate=48000 channels=2 " + SINK_OPTIONS +
                 "\n"
                 "set-default-sink out\n"
                 "load-module module-native-protocol-unix auth-anonymous=1 socket=" +
                 (directory_ / "native").string() + "\n");
  const std::string home = directory_.path();
  server_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"pulseaudio", "-n", "-F", directory_ / "script", "--daemonize=no",
                               "--use-pid-file=no", EXIT_WHEN_IDLE, "--realtime=no",
                               "--high-priority=no", "--log-level=notice"},
      std::map<std::string, std::string>{{"HOME", home},
                                         {"XDG_RUNTIME_DIR", home},
                                         {"XDG_CONFIG_HOME", home},
                                         {"PULSE_RUNTIME_PATH", ""},
                                         {"PULSE_STATE_PATH", ""},
                                         // It looks for a session bus, and would start one.
                                         {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
                                         {"DISPLAY", ""}});
  wait_for_clients(*server_);
}

void SoundServer::kill() {
  server_->signal(SIGKILL);
  server_->wait(std::chrono::seconds(5));
  running_ = false;
}

void SoundServer::restart() {
  start();
}

void SoundServer::hang() const {
  server_->signal(SIGSTOP);
}

void SoundServer::carry_on() const {
  server_->signal(SIGCONT);
}

RunResult AnySoundServer::pactl(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{"pactl"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  auto variables = environment();
  variables["LC_ALL"] = "C";
  RunResult result = run_program(command, variables);
  EXPECT_EQ(result.status, 0) << result.output;
  return result;
}

bool AnySoundServer::add_sink(const std::string& name, int rate, int channels) const {
  return pactl({"load-module", "module-null-sink", "sink_name=" + name,
                "rate=" + std::to_string(rate), "channels=" + std::to_string(channels),
                sink_options_})
             .status == 0;
}

bool AnySoundServer::remove_sink(const std::string& name) const {
  // Sinks are listed with the number of the module that made them.
  const std::string list = pactl({"list", "sinks"}).output;
  const std::size_t sink = list.find("Name: " + name + "\n");
  const std::string label = "Owner Module: ";
  const std::size_t owner = list.find(label, sink);
  EXPECT_NE(owner, std::string::npos) << "no sink " << name << " in:\n" << list;
  if (owner == std::string::npos) return false;
  const std::size_t number = owner + label.size();
  return pactl({"unload-module", list.substr(number, list.find('\n', number) - number)}).status ==
         0;
}

bool AnySoundServer::set_default_sink(const std::string& name) const {
  return pactl({"set-default-sink", name}).status == 0;
}

bool AnySoundServer::set_mute(const std::string& sink, bool muted) const {
  return pactl({"set-sink-mute", sink, muted ? "1" : "0"}).status == 0;
}

bool AnySoundServer::muted(const std::string& sink) const {
  return pactl({"get-sink-mute", sink}).output.find("yes") != std::string::npos;
}

Player::Player(const AnySoundServer& server, const std::string& sink, Fill fill)
    : fill_(std::move(fill)) {
  constexpr pa_sample_spec FORMAT{PA_SAMPLE_FLOAT32NE, RATE, 2};
  const pa_buffer_attr buffer{ANY, PLAY_AHEAD_BYTES, ANY, ANY, ANY};
  int error = 0;
  stream_ = pa_simple_new(server.address().c_str(), "player", PA_STREAM_PLAYBACK,
                          sink.empty() ? nullptr : sink.c_str(), "player", &FORMAT, nullptr,
                          &buffer, &error);
  EXPECT_NE(stream_, nullptr) << "nothing can be played: " << pa_strerror(error);
  if (stream_ != nullptr) thread_ = std::thread([this] { play(); });
}

Player::~Player() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (stream_ != nullptr) pa_simple_free(static_cast<pa_simple*>(stream_));
}

void Player::play() {
  std::vector<float> block(std::size_t{BLOCK_FRAMES} * 2);
  int error = 0;
  while (!stop_) {
    fill_(block);
    const std::size_t bytes = block.size() * sizeof(float);
    if (pa_simple_write(static_cast<pa_simple*>(stream_), block.data(), bytes, &error) < 0) return;
  }
}

std::uint64_t Player::ahead_us() const {
  int error = 0;
  const pa_usec_t latency_us = pa_simple_get_latency(static_cast<pa_simple*>(stream_), &error);
  return error == 0 ? latency_us : 0;
}

Tone::Tone(const AnySoundServer& server, Sine left, Sine right, const std::string& sink)
    : player_(server, sink, [this, left, right](std::span<float> block) {
        const auto sample = [this](const Sine& sine) {
          const double turns = std::fmod(sine.hz * static_cast<double>(frame_) / RATE, 1.0);
          return static_cast<float>(sine.amplitude * std::sin(2 * std::numbers::pi * turns));
        };
        for (std::size_t i = 0; i < block.size(); i += 2, ++frame_) {
          block[i] = sample(left);
          block[i + 1] = sample(right);
        }
      }) {}

Clicker::Clicker(const AnySoundServer& server, const std::string& sink)
    : player_(server, sink, [this](std::span<float> block) { fill(block); }) {}

// One block of full sound is 10 ms: long enough for a codec to keep, with a sharp beginning.
void Clicker::fill(std::span<float> block) {
  const std::scoped_lock lock(mutex_);
  std::ranges::fill(block, 0.0F);
  if (!wanted_) return;
  for (std::size_t i = 0; i < block.size(); ++i)
    block[i] = i / 2 % 48 < 24 ? LOUDNESS : -LOUDNESS;  // 1 kHz
  last_.written_us = lund_now_us();
  last_.played_us = last_.written_us + player_.ahead_us();
  wanted_ = false;
  clicked_.notify_all();
}

Clicker::Click Clicker::click() {
  std::unique_lock lock(mutex_);
  wanted_ = true;
  EXPECT_TRUE(clicked_.wait_for(lock, START_DEADLINE, [this] { return !wanted_; }));
  return last_;
}

Ear::Ear(const AnySoundServer& server, const std::string& sink) {
  constexpr pa_sample_spec FORMAT{PA_SAMPLE_FLOAT32NE, RATE, 1};
  const pa_buffer_attr buffer{ANY, ANY, ANY, ANY, BLOCK_FRAMES * sizeof(float)};
  const std::string monitor = sink + ".monitor";
  int error = 0;
  stream_ = pa_simple_new(server.address().c_str(), "ear", PA_STREAM_RECORD, monitor.c_str(), "ear",
                          &FORMAT, nullptr, &buffer, &error);
  EXPECT_NE(stream_, nullptr) << "can't listen to " << monitor << ": " << pa_strerror(error);
}

Ear::~Ear() {
  if (stream_ != nullptr) pa_simple_free(static_cast<pa_simple*>(stream_));
}

std::vector<float> Ear::listen(std::chrono::milliseconds duration) {
  std::vector<float> samples(static_cast<std::size_t>(RATE / 1000 * duration.count()));
  if (stream_ == nullptr) return samples;
  int error = 0;
  const int result = pa_simple_read(static_cast<pa_simple*>(stream_), samples.data(),
                                    samples.size() * sizeof(float), &error);
  EXPECT_EQ(result, 0) << pa_strerror(error);
  return samples;
}

bool Ear::hears(double hz, std::chrono::milliseconds deadline) {
  constexpr std::chrono::milliseconds PIECE{50};
  constexpr double AUDIBLE = 0.01;  // -40 dB
  for (; deadline >= PIECE && !testing::Test::HasFailure(); deadline -= PIECE) {
    if (tone_amplitude(listen(PIECE), RATE, hz) > AUDIBLE) return true;
  }
  return false;
}
