// PipeWire as a sound server of a test's own: its daemon, its session manager (WirePlumber) and its
// server of the PulseAudio protocol, with a configuration and sockets in a temporary directory,
// without D-Bus and without hardware. Killed at the end, also that of the test's process. One
// thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/linux/sound_server.h"

class PipewireServer final : public AnySoundServer {
 public:
  // Returns when the server accepts clients. As with the other server it has one sink, "out"
  // (48 kHz, stereo), which is the default. Neither its monitor nor that of an added sink knows of
  // the sink's volume, as those of sound cards don't.
  PipewireServer();

  bool add_sink(const std::string& name, int rate = 48'000, int channels = 2) const override;

  // The server of the PulseAudio protocol alone, which comes back at the same address. The sinks
  // live on in the daemon, but for those that were added.
  void kill_protocol_server();
  void restart_protocol_server();

  // Takes away a sink that no `add_sink` made, as a pulled card does.
  bool pull(const std::string& sink) const;

  // A null sink as this protocol's own module makes it: its monitor obeys its volume.
  bool add_sink_with_obedient_monitor(const std::string& name) const;

  // A sink (48 kHz, stereo) that plays into a pipe, which `Speakers` listens to.
  bool add_speakers(const std::string& name) const;
  std::filesystem::path pipe_of(const std::string& speakers) const {
    return directory_ / (speakers + ".pipe");
  }

 private:
  std::unique_ptr<ChildProcess> start(std::vector<std::string> command) const;
  std::vector<std::string> session_manager() const;
  RunResult tool(const std::vector<std::string>& command) const;
  bool wait_for_default_sink() const;

  std::unique_ptr<ChildProcess> daemon_;
  std::unique_ptr<ChildProcess> session_manager_;
  std::unique_ptr<ChildProcess> protocol_server_;
};

// The servers that a program may meet, for tests of what holds on each.
struct SoundServerKind {
  const char* name;
  std::unique_ptr<AnySoundServer> (*start)();
};
const SoundServerKind PULSEAUDIO{
    "PulseAudio", [] { return std::unique_ptr<AnySoundServer>(std::make_unique<SoundServer>()); }};
const SoundServerKind PIPEWIRE{
    "PipeWire", [] { return std::unique_ptr<AnySoundServer>(std::make_unique<PipewireServer>()); }};

// What leaves a sink for its speakers, behind its volume and its mute.
class Speakers {
 public:
  static constexpr int RATE = 48'000;

  Speakers(const PipewireServer& server, const std::string& name);
  ~Speakers();
  Speakers(const Speakers&) = delete;
  Speakers& operator=(const Speakers&) = delete;

  // What comes next, of the left channel; what has come before is dropped. Fails the test when it
  // doesn't come for seconds.
  std::vector<float> listen(std::chrono::milliseconds duration);

 private:
  bool wait_for_more() const;

  int pipe_ = -1;
};
