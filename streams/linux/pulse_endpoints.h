// Sound outputs over the PulseAudio protocol, which PipeWire speaks as well: an endpoint is a sink,
// its id the sink's name.
//
// A server that goes away is looked for each second until it is back; between the two nothing can
// be told or set. What this program had muted there and comes back unmuted is muted again; what was
// to be unmuted while it, or the server, was away is unmuted when it is back.
//
// libpulse runs a thread for it, whose lock guards everything here. The listener is called on that
// thread, with the lock held. Every call of the owner's waits 2 s at most for an answer.
#pragma once

#include <pulse/pulseaudio.h>

#include <map>
#include <optional>
#include <string_view>

#include "streams/sound_endpoints.h"

// Whether a sink's monitor stays audible while the sink is muted, by the server's own name and the
// sink's property "monitor.channel-volumes".
bool monitor_outlives_mute(std::string_view server_name, std::string_view channel_volumes);

class PulseEndpoints final : public SoundEndpoints {
 public:
  using MonitorRule = decltype(&monitor_outlives_mute);
  explicit PulseEndpoints(MonitorRule rule = monitor_outlives_mute) : rule_(rule) {}
  ~PulseEndpoints() override { close(); }
  PulseEndpoints(const PulseEndpoints&) = delete;
  PulseEndpoints& operator=(const PulseEndpoints&) = delete;

  bool open(Listener* listener, std::string* error) override;
  void close() override;
  std::string default_output() override;
  int is_muted(const std::string& id) override;
  bool can_mute(const std::string& id) override;
  bool set_mute(const std::string& id, bool muted) override;

 private:
  // A sink that was asked about or set. The protocol doesn't say who changed a sink, so a change
  // counts as somebody else's unless it is the one that is awaited.
  struct Sink {
    std::optional<bool> seen;     // the server's last word
    std::optional<bool> awaited;  // set, and not yet seen
    bool ours = false;            // this program has muted it
    // What is owed when it, or its server, is back: a mute that was to last, and an unmute that the
    // owner asked for meanwhile.
    bool mute_again = false;
    bool unmute_then = false;
  };
  struct Answer;
  class Lock;
  class Deadline;

  bool connect();
  bool ready() const;
  void connected();
  void lost();
  bool await(pa_operation* operation, const Deadline& deadline) const;
  bool look(const std::string& id, Answer* answer, const Deadline& deadline);
  bool send(const std::string& id, bool muted, const Deadline& deadline);
  void send_unwatched(const std::string& id, bool muted);
  bool confirm(const std::string& id, const Deadline& deadline);
  void owe_unmute(Sink* sink);
  void observe(const pa_sink_info& info);
  void observe(const pa_server_info& info);
  bool has_audible_monitor(const pa_sink_info& info) const;
  static void take_server(pa_context*, const pa_server_info* info, void* self);
  static void take_sink(pa_context*, const pa_sink_info* info, int end, void* self);

  const MonitorRule rule_;
  Listener* listener_ = nullptr;
  pa_threaded_mainloop* mainloop_ = nullptr;
  pa_context* context_ = nullptr;
  pa_time_event* retry_ = nullptr;
  std::string server_name_;
  std::string default_;
  std::map<std::string, Sink> sinks_;
};
