// A sound server of a test's own, without hardware: PulseAudio with null sinks and a socket in a
// temporary directory, killed at the end; PipeWire is in pipewire_server.h. And what is played and
// listened to there. One thread each.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/linux/environment.h"
#include "tests/support/temp_directory.h"

// What holds of every server that speaks the PulseAudio protocol. PULSE_SERVER of this process
// names it until the end.
class AnySoundServer {
 public:
  virtual ~AnySoundServer() = default;
  AnySoundServer(const AnySoundServer&) = delete;
  AnySoundServer& operator=(const AnySoundServer&) = delete;

  bool running() const { return running_; }
  std::string address() const;  // "unix:/tmp/.../native", as PULSE_SERVER takes it

  // For a program that is to find this server, and no other, whatever its own environment.
  std::map<std::string, std::string> environment() const;

  virtual bool add_sink(const std::string& name, int rate = 48'000, int channels = 2) const;
  bool remove_sink(const std::string& name) const;  // what played there moves to the default one
  bool set_default_sink(const std::string& name) const;
  bool set_mute(const std::string& sink, bool muted) const;
  bool muted(const std::string& sink) const;

  // `pactl` with these arguments; fails the test when it fails.
  RunResult pactl(const std::vector<std::string>& arguments) const;

 protected:
  explicit AnySoundServer(std::string sink_options);
  static bool accepts_clients(const std::filesystem::path& socket_path);
  // Fails the test when the server never accepts clients.
  void wait_for_clients(ChildProcess& server);

  TempDirectory directory_;
  bool running_ = false;

 private:
  const std::string sink_options_;  // of each sink that is added
  Variable server_name_;
  Variable cookie_;
};

class SoundServer final : public AnySoundServer {
 public:
  // Returns when the server accepts clients. It has one sink, "out" (48 kHz, stereo), which is the
  // default.
  SoundServer();

  void kill();            // at once, as a crash would
  void restart();         // after kill, at the same address, with the sink "out" alone
  void hang() const;      // it stops answering, its socket stays open
  void carry_on() const;  // after hang
  double processor_seconds() const { return server_->processor_seconds(); }

 private:
  void start();

  std::unique_ptr<ChildProcess> server_;
};

// Plays on a sink what `fill` writes into each block of interleaved stereo at 48 kHz, on a thread
// of its own, from the moment it is made to its end. It ends early, and says nothing, when its
// server does.
class Player {
 public:
  using Fill = std::function<void(std::span<float> block)>;

  // Without a name of a sink: on the default one, and along when that changes.
  Player(const AnySoundServer& server, const std::string& sink, Fill fill);
  ~Player();
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  // In `fill`: how long until what it writes is played.
  std::uint64_t ahead_us() const;

 private:
  void play();

  const Fill fill_;
  void* stream_ = nullptr;  // pa_simple
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A sine on both channels, or one on each.
class Tone {
 public:
  struct Sine {
    double hz = 440.0;
    double amplitude = 0.5;
  };

  explicit Tone(const AnySoundServer& server, double hz = 440.0, const std::string& sink = "out",
                double amplitude = 0.5)
      : Tone(server, {hz, amplitude}, {hz, amplitude}, sink) {}
  Tone(const AnySoundServer& server, Sine left, Sine right, const std::string& sink = "out");

 private:
  std::uint64_t frame_ = 0;
  Player player_;
};

// Silence, and a click in it each time that one is asked for.
class Clicker {
 public:
  static constexpr float LOUDNESS = 0.9F;

  explicit Clicker(const AnySoundServer& server, const std::string& sink = "out");

  // When it was handed to the server and when that will have played it, lund_now_us time. Waits for
  // the former.
  struct Click {
    std::uint64_t written_us = 0;
    std::uint64_t played_us = 0;
  };
  Click click();

 private:
  void fill(std::span<float> block);

  std::mutex mutex_;
  std::condition_variable clicked_;
  bool wanted_ = false;
  Click last_;
  Player player_;
};

// Listens to a sink, from the moment it is made. For what it hears: tests/support/spectrum.h.
class Ear {
 public:
  static constexpr int RATE = 48'000;

  explicit Ear(const AnySoundServer& server, const std::string& sink = "out");
  ~Ear();
  Ear(const Ear&) = delete;
  Ear& operator=(const Ear&) = delete;

  // What comes next, of the left channel; fails the test when the server is gone.
  std::vector<float> listen(std::chrono::milliseconds duration);

  // Whether the tone is to be heard within the deadline, counted in time of the sound.
  bool hears(double hz, std::chrono::milliseconds deadline = std::chrono::seconds(10));

 private:
  void* stream_ = nullptr;  // pa_simple
};
