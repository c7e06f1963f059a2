// A headless connection: prints what happens, records the sound, types, clicks and moves the
// clipboard as planned, and ends after the time asked for, or when all of that is done if that
// takes longer. The network thread's, and its owner's before and after the session's run.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>

#include "apps/client/clipboard_transfer.h"
#include "apps/client/host_session.h"
#include "apps/client/input_script.h"
#include "apps/client/wav_writer.h"

class ConnectRun : public SessionSinks {
 public:
  struct Plan {
    double seconds = 10;  // of stream, from the first frame; 0: until stopped
    const std::atomic<bool>* stop = nullptr;
    std::vector<InputAction> actions;
    WavWriter* sound = nullptr;              // open, or null
    ClipboardTransfer* clipboard = nullptr;  // started, or null
    std::FILE* talk = stdout;
  };
  explicit ConnectRun(Plan plan) : plan_(std::move(plan)), script_(plan_.actions) {}

  // Runs the session of which these are the sinks. `text` as HostSession::run gives it.
  SessionEnd run(HostSession& session, std::string* text);

  // After run.
  struct Pointer {
    PointerPosition position;
    const PointerImage* image = nullptr;  // none that was ever whole
  };
  std::optional<Pointer> pointer() const;  // of the main screen; nothing: the host told of none
  bool has_actions() const { return !plan_.actions.empty(); }
  const WavWriter* sound_file() const { return plan_.sound; }
  const ClipboardTransfer* clipboard() const { return plan_.clipboard; }
  // Screens that were asked for and ended early, with the host's reason.
  const std::map<int, std::string>& lost_screens() const { return lost_screens_; }

  void state(SessionState state, const std::string& text) override;
  void screen_state(int screen, ScreenState state, const std::string& text) override;
  void pointer(int screen, const PointerPosition& position) override;
  void sound(const SoundBlock& block) override;
  void second(int screen, const StreamStatistics::Second& second) override;
  void notice(const std::string& line) override { say(line); }
  bool step(std::uint64_t now_us) override;

 private:
  void say(const std::string& line);
  bool time_is_over() const;
  void step_script(std::uint64_t now_us);
  void step_clipboard(std::uint64_t now_us);

  const Plan plan_;
  InputScript script_;
  HostSession* session_ = nullptr;
  bool streaming_ = false;
  std::string broken_off_;  // why, while it is
  std::optional<PointerPosition> pointer_;
  std::map<int, std::string> lost_screens_;
  ClipboardTransfer::Delivery delivery_ = ClipboardTransfer::Delivery::Nothing;
  int items_said_ = 0;
};
