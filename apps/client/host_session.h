// The conversation with one host: one to four of its screens received, its sound, its pointer, its
// clipboard, and what the user does. Connects, asks for the screens' streams on a session of the
// engine each, keeps them alive, comes back after a host that has fallen silent, and takes leave.
//
// Threads: `run` is the network thread, from which the sinks are called, but for `picture`, which
// is called on the decoder thread of its screen. What is marked so may be called by any thread
// while run is running; nothing of it blocks.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "apps/client/cursor_cache.h"
#include "apps/client/host_link.h"
#include "apps/client/input_sender.h"
#include "apps/client/path_history.h"
#include "apps/client/sound_receiver.h"
#include "apps/client/statistics.h"
#include "connection/protocol.h"
#include "streams/host_clipboard.h"

struct DecodedPicture;
class DecodeThread;
class ScreenStream;

inline constexpr int SCREENS_MAX = 4;

struct SessionRequest {
  // What is wanted of each screen, the main one first; its end ends the others. `screen` tells the
  // screens apart. Sound and clipboard come with screen 0, sound if `audio` is set there.
  std::vector<lund_hello> screens;
  std::vector<std::filesystem::path> recordings;  // a directory for each, or none
  bool reconnect = false;  // go on after the host has fallen silent or has ended the stream
  // This computer's end of the clipboard, which outlives the session; null without one. It speaks
  // the same language as the host's.
  HostClipboard* clipboard = nullptr;
};

enum class SessionState {
  Connecting,  // handshake, or waiting for the acknowledgement of the main screen
  Streaming,
  BrokenOff,  // connecting again
  Ended,
};

enum class SessionEnd {
  Done,           // stopped
  NoAnswer,       // no handshake, no acknowledgement, or silence in mid-stream
  UnknownDevice,  // the host doesn't know this client
  Busy,
  Refused,       // no such screen, no display
  HostEnded,     // BYE
  LocalFailure,  // decoder or disk
};

enum class ScreenState { Waiting, Streaming, Ended };

// What comes out. Screens are named by the host's number, `lund_hello::screen`. The defaults
// ignore.
class SessionSinks {
 public:
  virtual ~SessionSinks() = default;

  // Decoder thread. The picture is valid until the return; the next one waits meanwhile.
  virtual void picture(int screen, const DecodedPicture& picture, const FrameTimes& times) {
    (void)screen, (void)picture, (void)times;
  }

  // Network thread. `text` says in words why a session has broken off or ended; empty otherwise.
  virtual void state(SessionState state, const std::string& text) { (void)state, (void)text; }
  // `text` as above. A screen other than the main one may end alone.
  virtual void screen_state(int screen, ScreenState state, const std::string& text) {
    (void)screen, (void)state, (void)text;
  }
  // A stream has been granted: its size, rate and codec. Before the first picture of that size.
  virtual void granted(int screen, const lund_hello_ack& stream) { (void)screen, (void)stream; }
  // The first picture of the run, or of a return, is complete and on its way to the decoder.
  virtual void first_frame(int screen) { (void)screen; }
  virtual void pointer(int screen, const PointerPosition& position) {
    (void)screen, (void)position;
  }
  // The image of an id that a position has named or will name.
  virtual void pointer_image(int screen, const PointerImage& image) { (void)screen, (void)image; }
  virtual void sound(const SoundBlock& block) { (void)block; }
  // A second of a screen is over.
  virtual void second(int screen, const StreamStatistics::Second& second) {
    (void)screen, (void)second;
  }
  virtual void notice(const std::string& line) { (void)line; }  // a path, a return
  // After every batch of datagrams and at least every 50 ms. True ends the session.
  virtual bool step(std::uint64_t now_us) {
    (void)now_us;
    return false;
  }
};

class HostSession {
 public:
  // All three outlive the session.
  HostSession(HostLink& link, const SessionRequest& request, SessionSinks& sinks);
  ~HostSession();
  HostSession(const HostSession&) = delete;
  HostSession& operator=(const HostSession&) = delete;

  // Connects, streams, takes leave. `text` says in words how it ended when it isn't Done.
  SessionEnd run(std::string* text);

  // Any thread.
  void stop();
  InputSender& input(int screen);  // of a screen that was requested
  void want_sound(bool on);
  void want_bitrate(int screen, std::uint32_t kbps);
  void close_screen(int screen);  // one other than the main one
  double rtt_us() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
