// Types and clicks by a plan, one action after the other, each when the one before it has been
// acknowledged. A click waits until the host has shown the pointer at its place, since nothing else
// says that a position has arrived. One thread; time is the caller's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "apps/client/cursor_cache.h"
#include "apps/client/input_sender.h"
#include "apps/client/typed_text.h"

struct Click {
  int x = 0, y = 0;  // pixels of the stream
};
using InputAction = std::variant<std::vector<KeyStroke>, Click>;

// "X,Y"; nothing for anything else.
std::optional<Click> parse_click(const std::string& text);

// Where a pixel of a picture of that size lies on its scale from 0 to 65535.
std::uint16_t scale_position(int pixel, int size);

class InputScript {
 public:
  explicit InputScript(std::vector<InputAction> actions) : actions_(std::move(actions)) {}

  // What a step sees of the stream.
  struct View {
    int width = 0, height = 0;
    PointerPosition pointer;
    bool pointer_known = false;
  };
  // Does what is due; to be called every 10 ms or so while a picture is there.
  void step(std::uint64_t now_us, const View& view, InputSender& input);
  // The stream has broken off: what was on its way may or may not have been played, so the plan
  // can't go on.
  void interrupt();

  bool done() const { return next_ == actions_.size() && idle_; }
  const std::string& failure() const { return failure_; }  // why it has stopped; empty: it hasn't
  std::size_t remaining() const { return actions_.size() - next_; }

 private:
  bool type(const std::vector<KeyStroke>& strokes, std::uint64_t now, InputSender& input);
  bool click(const Click& click, std::uint64_t now, const View& view, InputSender& input);

  const std::vector<InputAction> actions_;
  std::size_t next_ = 0;
  bool idle_ = true;            // everything has been acknowledged
  std::size_t stroke_ = 0;      // of the text being typed
  std::uint64_t last_us_ = 0;   // of the last stroke or position
  std::uint64_t since_us_ = 0;  // of the click being made; 0: none
  std::string failure_;
};
