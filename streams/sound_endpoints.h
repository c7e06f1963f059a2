// The sound outputs of this computer as the muting of its speakers needs them: which one is the
// default, whether one is muted, and who changed that. An endpoint is known by an id, a UTF-8 text
// without line ends that stays the same between runs.
//
// One thread opens, asks, sets and closes, since each call may block; the listener is called on
// threads of the platform's, and does no more than take note.
#pragma once

#include <memory>
#include <string>

class SoundEndpoints {
 public:
  class Listener {
   public:
    virtual ~Listener() = default;
    // The default output is another one, or can be had again.
    virtual void default_changed() = 0;
    // Somebody else than this program muted or unmuted an endpoint that was asked about or set.
    virtual void mute_changed(const std::string& id, bool muted) = 0;
  };

  virtual ~SoundEndpoints() = default;

  // The listener may be called from now on until `close` returns. False leaves it closed, with
  // `error` in words for the log; it may be tried again.
  virtual bool open(Listener* listener, std::string* error) = 0;
  virtual void close() = 0;  // idempotent

  virtual std::string default_output() = 0;         // empty when there is none
  virtual int is_muted(const std::string& id) = 0;  // 1, 0, -1 when it can't be told
  // Whether a mute would leave what plays there audible to the capture of this computer's sound;
  // false as well when it can't be told. Changes nothing.
  virtual bool can_mute(const std::string& id) = 0;
  // What plays there must stay audible to the capture of this computer's sound: a mute that would
  // silence it too fails, and leaves the endpoint as it was. An unmute always may be tried.
  virtual bool set_mute(const std::string& id, bool muted) = 0;
};

std::unique_ptr<SoundEndpoints> make_sound_endpoints();
