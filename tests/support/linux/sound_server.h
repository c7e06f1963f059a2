// A sound server of a test's own, without hardware: PulseAudio with null sinks and a socket in a
// temporary directory, killed at the end; PipeWire is in pipewire_server.h. And a tone to play
// there. One thread each.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
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

// A sine on both channels of a sink, from the moment it is made to its end. It ends early, and
// says nothing, when its server does.
class Tone {
 public:
  explicit Tone(const AnySoundServer& server, double hz = 440.0, const std::string& sink = "out",
                double amplitude = 0.5);
  ~Tone();
  Tone(const Tone&) = delete;
  Tone& operator=(const Tone&) = delete;

 private:
  void play(double hz, double amplitude);

  void* stream_ = nullptr;  // pa_simple
  std::atomic<bool> stop_{false};
  std::thread thread_;
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
