// What a platform offers the capture pipeline: sources of pictures, the desktop that has the input,
// and a few functions. Everything here is called on the capture thread alone, but for the makers in
// CapturePlatform, which must be callable from it.
//
// A source makes the system's calls and reports results; when to try again, what ends a session and
// which frames leave is the pipeline's. What a source has to say about its own failures it logs
// itself, with the prefix "video: ".
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "capture/display.h"
#include "capture/encoder.h"
#include "capture/pointer_source.h"
#include "control/wake_event.h"

struct SourceTraits {
  const char* backend;  // as status shows it: "DDA GPU", "GDI CPU", "X11 CPU"
  bool notifying;       // reports changes; else it is polled at the full rate
  bool gpu;             // pictures are surfaces of a device; else they lie in memory
};

struct CaptureTarget {
  DisplayInfo display;
  std::int32_t width = 0;  // encoded size
  std::int32_t height = 0;
  std::int32_t fps = 0;
};

enum class AcquireResult {
  Picture,      // a new picture
  PointerOnly,  // only the pointer has changed
  TimeOut,      // nothing within the wait, or the wake-up was set
  Lost,         // the capture is void (mode change, switch of the desktop): build everything anew
  Busy,         // a failure of this moment: subscribe again after a pause
  Gone          // the device or server behind it is gone: build everything anew after a pause
};

struct AcquiredPicture {
  std::uint64_t present_us = 0;  // when it was presented, lund_now_us time; 0 if unknown
  std::int32_t width = 0;
  std::int32_t height = 0;
};

// Top-down, 4 bytes a pixel in the order blue, green, red, unused.
struct MemoryPicture {
  const std::uint8_t* bgra = nullptr;
  std::uint64_t size = 0;  // readable bytes
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::int32_t stride = 0;
};

struct SubscribeFailure {
  std::uint32_t code = 0;      // tells failures apart, so that a repeated one is logged seldom
  std::string text;            // for the log
  bool desktop_moved = false;  // the input is on another desktop now
};

class CaptureSource {
 public:
  virtual ~CaptureSource() = default;

  virtual const SourceTraits& traits() const = 0;

  // Gets ready to capture the display. Called once, first.
  virtual bool open(const CaptureTarget& target) = 0;

  // Notifying sources: begins to report changes; `display`'s rectangle is read again.
  virtual bool subscribe(DisplayInfo* display, SubscribeFailure* failure) {
    (void)display, (void)failure;
    return true;
  }
  virtual bool subscribed() const { return true; }
  virtual void unsubscribe() {}

  // Polled sources: where the display lies now; its size is as it was.
  virtual void follow(const DisplayInfo& display) { (void)display; }

  // Waits for something new, at most `wait_ms`; a source that can ends the wait when `wake` is set.
  // A polled source takes a picture at once, and every source's first acquire delivers the screen
  // as it stands. After Picture and PointerOnly, release is due before the next.
  virtual AcquireResult acquire(std::uint32_t wait_ms, WakeEvent& wake, AcquiredPicture* out) = 0;

  // Makes the acquired picture the held one, which stays until another replaces it.
  virtual bool hold() { return true; }
  virtual void release() {}
  virtual bool has_picture() const = 0;

  // Null for a source that knows nothing of the pointer.
  virtual PointerSource* pointer() { return nullptr; }

  // False while held pictures can't be brought into the encoder's form; nothing is encoded then.
  virtual bool converter_ready() const { return true; }

  // False once the device behind the source has failed.
  virtual bool alive() { return true; }

  // Memory sources: the held picture, valid until the next call of the source. It may be read from
  // the screen at this very moment, so that what is encoded is never older than need be.
  virtual bool picture(MemoryPicture* out) {
    (void)out;
    return false;
  }

  // GPU sources: the device for the encoder, and the held picture converted into its surface.
  virtual EncoderDevice* device() { return nullptr; }
  virtual bool draw(const EncoderSurface& surface) {
    (void)surface;
    return false;
  }
  virtual void forget_surfaces() {}  // the encoder that they belong to is about to close
};

// The desktop that has the keyboard and mouse. A capture is bound to the one that its thread is on.
class InputDesktop {
 public:
  enum class Look { Same, Other, Unreachable };

  virtual ~InputDesktop() = default;

  virtual Look look() = 0;     // against the one held
  virtual bool enter() = 0;    // holds the one that `look` has found, in place of the former
  virtual bool matches() = 0;  // cheap; any failure counts as no match
  virtual std::string name() const = 0;  // of the one held, empty if none
  virtual void leave() = 0;
};

struct CapturePlatform {
  std::function<std::unique_ptr<InputDesktop>()> make_desktop;
  std::function<std::unique_ptr<CaptureSource>()> make_gpu_source;  // tried first; empty if none
  std::function<std::unique_ptr<CaptureSource>()> make_memory_source;
  std::function<std::unique_ptr<PictureEncoder>()> make_encoder;
  std::function<bool(const std::string& device, DisplayInfo* out)> find_display;
};

CapturePlatform native_capture_platform();

// While it lives, the calling thread has the priority that the platform grants to capturing.
class CaptureThreadPriority {
 public:
  CaptureThreadPriority();
  ~CaptureThreadPriority();
  CaptureThreadPriority(const CaptureThreadPriority&) = delete;
  CaptureThreadPriority& operator=(const CaptureThreadPriority&) = delete;

 private:
  std::intptr_t former_;
};
