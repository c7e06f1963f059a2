// What comes out of the conversation with a host: pictures, pointer, sound, and how it stands.
// Screens are named by the host's number, `lund_hello::screen`. The defaults ignore everything.
#pragma once

#include <cstdint>
#include <string>

#include "apps/client/cursor_cache.h"
#include "apps/client/sound_receiver.h"
#include "apps/client/statistics.h"
#include "connection/protocol.h"

struct DecodedPicture;

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

class SessionSinks {
 public:
  virtual ~SessionSinks() = default;

  // Decoder thread of that screen. The picture is valid until the return, and the next one waits.
  virtual void picture(int /*screen*/, const DecodedPicture&, const FrameTimes&) {}

  // All others: network thread. Why a session has broken off or ended stands in the text.
  virtual void state(SessionState, const std::string& /*text*/) {}
  // The same of one screen; one that isn't the main one may end alone.
  virtual void screen_state(int /*screen*/, ScreenState, const std::string& /*text*/) {}
  // A stream has been granted: its size, rate and codec. Before its first picture.
  virtual void granted(int /*screen*/, const lund_hello_ack&) {}
  virtual void pointer(int /*screen*/, const PointerPosition&) {}
  // The image of an id that a position has named or will name; valid until the return.
  virtual void pointer_image(int /*screen*/, const PointerImage&) {}
  virtual void sound(const SoundBlock&) {}
  virtual void second(int /*screen*/, const StreamStatistics::Second&) {}  // is over
  virtual void path(const std::string& /*where*/) {}                       // taken from now on
  virtual void notice(const std::string& /*line*/) {}  // a path taken, a stream that is back
  // After every batch of datagrams and at least every 50 ms. True ends the session.
  virtual bool step(std::uint64_t /*now_us*/) { return false; }
};
