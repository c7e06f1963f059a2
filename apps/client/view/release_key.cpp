#include "apps/client/view/release_key.h"

namespace {

ViewCommand command_of(std::uint16_t usage) {
  if (usage < USAGE_A || usage > USAGE_Z) return ViewCommand::None;
  switch ('A' + (usage - USAGE_A)) {
    case 'S':
      return ViewCommand::Statistics;
    case 'F':
      return ViewCommand::FullScreen;
    case 'R':
      return ViewCommand::RelativeMouse;
    case 'M':
      return ViewCommand::Sound;
    case 'C':
      return ViewCommand::Clipboard;
    case 'Q':
      return ViewCommand::Quit;
    case 'H':
      return ViewCommand::Help;
    case 'D':
      return ViewCommand::SecureAttention;
    default:
      return ViewCommand::None;
  }
}

}  // namespace

KeyVerdict ReleaseKey::key(std::uint16_t usage, bool down) {
  if (usage == 0 || usage >= KEYS) return {};
  if (usage == usage_) {
    if (down) {
      alone_ = alone_ || !held_;
      held_ = true;
      return {};
    }
    const bool let_go = held_ && alone_;
    held_ = alone_ = false;
    return let_go ? KeyVerdict{false, ViewCommand::LetGo} : KeyVerdict{};
  }
  if (!down) {
    if (swallowed_[usage]) {
      swallowed_.reset(usage);
      return {};
    }
    const bool was_down = forwarded_[usage];
    forwarded_.reset(usage);
    return {was_down};
  }
  if (swallowed_[usage]) return {};  // its repeats
  if (held_ && !forwarded_[usage]) {
    alone_ = false;
    swallowed_.set(usage);
    return {false, command_of(usage)};
  }
  forwarded_.set(usage);
  return {true};
}

void ReleaseKey::focus_lost() {
  held_ = alone_ = false;
  swallowed_.reset();
  forwarded_.reset();
}
