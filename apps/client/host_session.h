// The conversation with one host: one to four of its screens received, its sound, its pointer, its
// clipboard, and what the user does. Connects, asks for each screen's stream on a session of the
// engine, comes back after a host that has fallen silent, and takes leave. The main screen, which
// is the first, is asked for first; its end ends the others.
//
// Threads: `run` is the network thread, from which the sinks are called, but for `picture`. What is
// marked so may be called by any thread; nothing of it blocks for longer than a send.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/client/host_link.h"
#include "apps/client/input_sender.h"
#include "apps/client/obstacles.h"
#include "apps/client/path_history.h"
#include "apps/client/screen_stream.h"
#include "apps/client/session_sinks.h"
#include "apps/client/sound_receiver.h"
#include "streams/host_clipboard.h"

struct SessionRequest {
  // What is wanted of each screen, the main one first; `screen` tells them apart. Sound comes with
  // screen 0, if `audio` is set there.
  std::vector<lund_hello> screens;
  std::vector<std::filesystem::path> recordings;  // a directory for each, or none at all
  bool reconnect = false;  // go on after the host has fallen silent or has ended the stream
  // This computer's end of the clipboard, for screen 0; outlives the session; null without one. It
  // is told of sessions, and speaks the same packets, as the host's end is.
  HostClipboard* clipboard = nullptr;
};

// A stream that broke off and came back.
struct Reconnect {
  double at_s;    // when the new stream's first frame was there, from the start
  double gap_ms;  // from the last packet before it broke off to that frame
  std::string reason;
};

class HostSession {
 public:
  // Link and sinks outlive the session.
  HostSession(HostLink& link, const SessionRequest& request, SessionSinks& sinks);
  ~HostSession();
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;

  // Connects, streams, takes leave. `text` says in words how it ended when it isn't Done. Once.
  SessionEnd run(std::string* text);

  // Any thread. Screens are those requested.
  void stop() { stop_ = true; }
  InputSender& input(int screen) { return stream(screen).input(); }
  void want_sound(bool on) { wanted_sound_ = on; }
  void want_bitrate(int screen, std::uint32_t kbps) { stream(screen).want_bitrate(kbps); }
  void close_screen(int screen);  // takes leave of one that isn't the main one
  double rtt_us() { return main().rtt_us(); }

  // Network thread, or after run.
  ScreenStream& main() { return *streams_.front(); }
  ScreenStream& stream(int screen);
  const std::vector<std::unique_ptr<ScreenStream>>& streams() const { return streams_; }
  std::uint64_t first_frame_us() const { return first_frame_us_; }  // of the run; 0: none yet
  double seconds() const;  // from the main screen's first frame to now
  double hello_to_first_frame_ms() const { return hello_to_first_frame_ms_; }
  const PathHistory& paths() const { return paths_; }
  const std::vector<Reconnect>& reconnects() const { return reconnects_; }
  const SoundReceiver::Counts& sound_counts() const { return sound_.counts(); }

 private:
  // Of a screen other than the main one.
  struct Other {
    bool opening = false;          // the engine shakes hands for it
    std::uint64_t attempt_us = 0;  // when it was begun or has ended
    bool given_up = false;
  };

  void connect(std::uint64_t now);
  void forget_streams();
  bool may_come_back() const;
  void break_off(std::uint64_t now);
  void note_first_frame(std::uint64_t now);
  void note_path(const lund_conn_event& event);
  void on_event(const lund_conn_event& event);
  void on_session_up(const lund_conn_event& event);
  void on_packet(const std::uint8_t* packet, std::size_t size, const PacketOrder& order);
  void on_granted();
  bool step();  // timers; true when it is time to leave
  void step_connecting(std::uint64_t now);
  void step_others(std::uint64_t now);
  void step_other(std::size_t index, std::uint64_t now);
  void end_other(std::size_t index);
  bool is_closed(const ScreenStream& stream) const;
  void tell_sound(std::uint64_t now);
  void end(SessionEnd how, std::string text);
  void set_state(SessionState state, const std::string& text = {});
  bool carries_sound() { return main().screen() == 0; }

  HostLink& link_;
  SessionSinks& sinks_;
  const bool reconnect_;
  HostClipboard* const clipboard_;
  std::vector<std::unique_ptr<ScreenStream>> streams_;
  std::vector<Other> others_;  // beside streams_; the main one's is not used

  std::atomic<bool> stop_{false};
  std::atomic<bool> wanted_sound_;
  std::atomic<unsigned> closing_{0};  // bit by screen

  std::optional<StreamEnding> ending_;
  Obstacles obstacles_;
  PathHistory paths_;
  std::vector<Reconnect> reconnects_;
  std::string broken_off_;           // why, while it isn't back; empty otherwise
  std::uint64_t broken_off_us_ = 0;  // the last packet before that
  std::uint64_t started_us_ = 0;
  std::uint64_t attempt_us_ = 0;  // when this connection was begun; 0: it is due
  std::uint64_t first_frame_us_ = 0;
  double hello_to_first_frame_ms_ = 0;
  bool clipboard_up_ = false;

  SoundReceiver sound_;
  bool told_sound_ = false;
  std::uint64_t told_sound_us_ = 0;
  int sound_tellings_ = 0;  // since it last was as it is wanted
  std::uint64_t last_sound_us_ = 0;
};
