// The key that belongs to the viewer and never reaches the host. Pressed alone it lets go of mouse
// and keyboard; together with a letter it is a command. While it is down no other key reaches the
// host either, so that a mistyped command types nothing there. Pure; one thread.
#pragma once

#include <bitset>
#include <cstdint>

#include "apps/client/view/keys.h"

enum class ViewCommand {
  None,
  Statistics,
  FullScreen,
  RelativeMouse,
  Sound,
  Clipboard,
  Quit,
  Help,
  SecureAttention,  // Ctrl+Alt+Delete to the host
  LetGo,            // the key alone
};

struct KeyVerdict {
  bool forward = false;  // to the host, as it is
  ViewCommand command = ViewCommand::None;
};

class ReleaseKey {
 public:
  explicit ReleaseKey(std::uint16_t usage) : usage_(usage) {}

  // Every key event of the window; repeats come as further downs.
  KeyVerdict key(std::uint16_t usage, bool down);
  // The window's keys are no longer ours: what is held now will be released elsewhere.
  void focus_lost();

  std::uint16_t usage() const { return usage_; }

 private:
  static constexpr std::size_t KEYS = 256;
  std::uint16_t usage_;
  bool held_ = false;
  bool alone_ = false;           // nothing was pressed with it yet
  std::bitset<KEYS> swallowed_;  // went down with it: their releases are ours too
  std::bitset<KEYS> forwarded_;  // are down at the host
};
