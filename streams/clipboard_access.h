// The clipboard of a desktop, as much of it as the bridge needs. Run-time seam: the native one, and
// fakes in tests. What is read and written, when and how often, is the bridge's affair.
//
// Everything but wake and interrupt is called by one thread, the bridge's listener, for whom the
// calls may block as long as they say.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "streams/clipboard_log.h"

struct ClipboardTraits {
  bool crlf = false;                 // programs here end lines by CR LF
  const char* private_mark = "";     // what a program marks a copy by that is nobody's business
  const char* picture_library = "";  // without which there are no pictures
};

enum class ClipboardForm {
  PrivateMark,
  Text,  // UTF-8
  Png,
  Dib,  // of several, the one with the newest header that holds together
};

// A form as the clipboard has it.
struct ClipboardBlock {
  std::vector<std::uint8_t> bytes;  // none when there are more than were asked for
  std::uint64_t size = 0;           // as far as it is known
};

// All forms of one item, to be put onto the clipboard together. Empty ones are left out, but for
// the text, which may be an empty one.
struct ClipboardContent {
  std::optional<std::string> text;  // with the line ends of this system
  std::vector<std::uint8_t> dib;
  std::vector<std::uint8_t> png;
};

class ClipboardAccess {
 public:
  // How long a wait may be that ends by wake, change or interruption alone.
  static constexpr std::uint32_t FOREVER_MS = ~0u;

  virtual ~ClipboardAccess() = default;
  virtual const ClipboardTraits& traits() const = 0;

  // Begins to listen. False when there is no clipboard here.
  virtual bool start(const ClipboardLog& log) = 0;
  virtual void finish() = 0;
  virtual bool has_pictures() = 0;  // whether the picture library is there; after start

  // True when the clipboard has changed since the last wait that said so; false when the time has
  // passed, or after wake or interrupt.
  virtual bool wait(std::uint32_t timeout_ms) = 0;

  // Another number after each change; that of the newest change of which wait could tell.
  virtual std::uint32_t sequence() = 0;

  // To read. False when it can't be had now: another program holds it, or doesn't answer. What
  // stands between open and close is bounded in time.
  virtual bool open() = 0;
  virtual bool has(ClipboardForm form) = 0;
  // Nothing on failure. No more than `most_bytes` is ever held.
  virtual std::optional<ClipboardBlock> read(ClipboardForm form, std::uint64_t most_bytes) = 0;
  virtual void close() = 0;

  // Replaces what is on the clipboard. The sequence number of this very change, or nothing when the
  // clipboard can't be had now.
  virtual std::optional<std::uint32_t> write(std::shared_ptr<const ClipboardContent> content) = 0;

  // Any thread: ends a wait.
  virtual void wake() = 0;
  // Any thread, at the end: whatever waits gives up, and nothing waits any more.
  virtual void interrupt() = 0;
};

// The native one; not started.
std::unique_ptr<ClipboardAccess> make_clipboard_access();
