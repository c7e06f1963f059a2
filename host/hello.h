// What a host decides about a client's HELLO: whether it starts, replaces or repeats a screen,
// which monitor serves it, and with which stream values. Pure: no state, no clock, no locks; any
// thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "capture/display.h"
#include "connection/protocol.h"
#include "control/options.h"

// Screens a client may hold. The refusal names the highest index, LAST_SCREEN.
inline constexpr int SCREENS = 4;
inline constexpr int LAST_SCREEN = SCREENS - 1;

// One running session or queued setup, as a decision sees it.
struct SessionSlot {
  std::string client;  // the 32 bytes of the client's static key
  std::uint32_t session = 0;
  int screen = 0;
  bool in_setup = false;
  bool started = false;     // the client has sent something since the session went live
  bool same_hello = false;  // its HELLO had the very bytes of the one being judged
};

enum class HelloAction { Start, Replace, AckAgain, Ignore, Busy, BadScreen };

struct HelloDecision {
  HelloAction action = HelloAction::Ignore;
  int slot = -1;  // the one it is about
  bool operator==(const HelloDecision&) const = default;
};

// A client that holds anything keeps every other one out, whatever screen that one asks for. One
// engine session carries one screen.
HelloDecision decide_hello(const std::vector<SessionSlot>& slots, const std::string& client,
                           std::uint32_t session, int screen, int screens);

// The monitor named `wanted`, else the primary one, else the leftmost; -1 without any. Monitors of
// the virtual display driver don't count, here and below.
int pick_main_monitor(const std::vector<MonitorEntry>& entries, const std::string& wanted);

// All but `main`, from left to right.
std::vector<int> other_monitors_in_order(const std::vector<MonitorEntry>& entries, int main);

int monitor_for_screen(const std::vector<MonitorEntry>& entries, const std::string& wanted,
                       int screen);

// How a host uses virtual displays: VirtualDisplays::enabled.
enum VirtualDisplayMode : int {
  VIRTUAL_DISPLAY_OFF = 0,
  VIRTUAL_DISPLAY_AUTO = 1,    // where no monitor exists
  VIRTUAL_DISPLAY_ALWAYS = 2,  // and for every client that asks for one
};
int virtual_display_mode(const std::string& option);

enum class DisplayPlan { None, Physical, Virtual };
DisplayPlan plan_display(int mode, bool usable, const lund_hello& hello, bool has_monitor);

struct DisplayRequest {
  int width = 0;
  int height = 0;
  int fps = 0;
  DesktopPoint place;
};

// The mode of a virtual display, and its place to the right of everything: of the monitors, and of
// `right_edges`, those of the virtual displays that stream already.
DisplayRequest virtual_display_request(const lund_hello& hello, const HostOptions& options,
                                       const std::vector<DisplayInfo>& displays, int main,
                                       const std::vector<int>& right_edges);

// Why no display serves a screen, when the driver itself gave no reason.
std::string no_display_message(int screen, const std::vector<MonitorEntry>& entries, int mode,
                               bool usable);
std::string bad_screen_message();

// Why a client that asked for a virtual display sees a monitor.
const char* physical_instead_reason(int mode, bool usable);

struct StreamValues {
  int width = 0;
  int height = 0;
  int fps = 0;
  int bitrate_kbps = 0;
  bool hevc = false;  // wished for; the encoder has the last word
  int datagram = 0;   // bytes on the wire
  int payload = 0;    // of a plain packet: what sealing leaves
  int fec_percent = 0;
};

// Aspect is kept and nothing is scaled up; the size is even and at least 64 by 64. `path` is the
// engine's path class.
StreamValues choose_stream(const lund_hello& hello, const HostOptions& options,
                           const DisplayInfo& display, int path);

inline constexpr int BITRATE_MIN_KBPS = 500;
inline constexpr int BITRATE_MAX_KBPS = 500'000;
int clamp_bitrate(std::uint32_t kbps);

// "name" (code), as log lines name a client.
std::string client_text(const std::string& name, const std::string& code);
