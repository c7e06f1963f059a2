#include "host/hello.h"

#include <algorithm>
#include <cstdio>
#include <tuple>

#include "connection/netsock.h"
#include "control/text.h"

namespace {

constexpr int DATAGRAM_MIN = 600;  // below this headers outweigh the picture
constexpr int FPS_MAX = 240;
constexpr int STREAM_SIZE_MIN = 64;
constexpr int VIRTUAL_DEFAULT_WIDTH = 1920;
constexpr int VIRTUAL_DEFAULT_HEIGHT = 1080;

constexpr std::uint8_t CODEC_HEVC = 1;
constexpr std::uint8_t CODEC_H264 = 2;

// Left to right, then top to bottom; names as unsigned bytes, the shorter first.
bool before(const MonitorEntry& a, const MonitorEntry& b) {
  return std::tie(a.left, a.top, a.name) < std::tie(b.left, b.top, b.name);
}

int physical_count(const std::vector<MonitorEntry>& entries) {
  return static_cast<int>(
      std::ranges::count_if(entries, [](const MonitorEntry& e) { return !e.is_virtual; }));
}

HelloDecision decide_known_screen(const SessionSlot& slot, int index, std::uint32_t session) {
  if (slot.session != session || !slot.same_hello) return {HelloAction::Replace, index};
  if (slot.in_setup) return {HelloAction::Ignore, index};
  return {slot.started ? HelloAction::Replace : HelloAction::AckAgain, index};
}

// A stream's size: the display's, made to fit into `max_width` by `max_height` (0: no limit). The
// ratio stays a fraction of integers, so that a limit that is met is met exactly.
std::pair<int, int> fit(int width, int height, int max_width, int max_height) {
  if (width < 1 || height < 1) return {STREAM_SIZE_MIN, STREAM_SIZE_MIN};
  std::int64_t numerator = 1, denominator = 1;
  const auto limit = [&](std::int64_t wanted, std::int64_t size) {
    if (wanted == 0 || wanted * denominator >= size * numerator) return;
    numerator = wanted;
    denominator = size;
  };
  limit(max_width, width);
  limit(max_height, height);
  const auto scaled = [&](std::int64_t size) {
    const auto even = static_cast<int>(size * numerator / denominator) & ~1;
    return std::max(even, STREAM_SIZE_MIN);
  };
  return {scaled(width), scaled(height)};
}

}  // namespace

HelloDecision decide_hello(const std::vector<SessionSlot>& slots, const std::string& client,
                           std::uint32_t session, int screen, int screens) {
  const bool bad = screen < 0 || screen >= screens;
  const auto index_of = [&](auto matches) {
    const auto found = std::ranges::find_if(slots, matches);
    return found == slots.end() ? -1 : static_cast<int>(found - slots.begin());
  };
  if (slots.empty()) return {bad ? HelloAction::BadScreen : HelloAction::Start, -1};
  if (index_of([&](const SessionSlot& s) { return s.client != client; }) >= 0)
    return {HelloAction::Busy, -1};
  if (bad) return {HelloAction::BadScreen, -1};
  const int other_screen =
      index_of([&](const SessionSlot& s) { return s.session == session && s.screen != screen; });
  if (other_screen >= 0) return {HelloAction::Ignore, other_screen};
  const int same_screen = index_of([&](const SessionSlot& s) { return s.screen == screen; });
  if (same_screen >= 0)
    return decide_known_screen(slots[static_cast<std::size_t>(same_screen)], same_screen, session);
  const bool room = screens > static_cast<int>(slots.size());
  return {room ? HelloAction::Start : HelloAction::BadScreen, -1};
}

int pick_main_monitor(const std::vector<MonitorEntry>& entries, const std::string& wanted) {
  int primary = -1, first = -1;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const MonitorEntry& entry = entries[i];
    if (entry.is_virtual) continue;
    if (!wanted.empty() && same_but_for_case(entry.name, wanted)) return static_cast<int>(i);
    if (primary < 0 && entry.primary) primary = static_cast<int>(i);
    if (first < 0 || before(entry, entries[static_cast<std::size_t>(first)]))
      first = static_cast<int>(i);
  }
  return primary >= 0 ? primary : first;
}

std::vector<int> other_monitors_in_order(const std::vector<MonitorEntry>& entries, int main) {
  std::vector<int> others;
  for (std::size_t i = 0; i < entries.size(); ++i)
    if (!entries[i].is_virtual && static_cast<int>(i) != main)
      others.push_back(static_cast<int>(i));
  std::ranges::stable_sort(others, [&](int a, int b) {
    return before(entries[static_cast<std::size_t>(a)], entries[static_cast<std::size_t>(b)]);
  });
  return others;
}

int monitor_for_screen(const std::vector<MonitorEntry>& entries, const std::string& wanted,
                       int screen) {
  const int main = pick_main_monitor(entries, wanted);
  if (screen == 0 || main < 0) return screen == 0 ? main : -1;
  const std::vector<int> others = other_monitors_in_order(entries, main);
  const auto place = static_cast<std::size_t>(screen - 1);
  return place < others.size() ? others[place] : -1;
}

int virtual_display_mode(const std::string& option) {
  if (option == "off") return VIRTUAL_DISPLAY_OFF;
  return option == "always" ? VIRTUAL_DISPLAY_ALWAYS : VIRTUAL_DISPLAY_AUTO;
}

DisplayPlan plan_display(int mode, bool usable, const lund_hello& hello, bool has_monitor) {
  if (usable && mode == VIRTUAL_DISPLAY_ALWAYS && hello.display_mode == 1)
    return DisplayPlan::Virtual;
  if (has_monitor) return DisplayPlan::Physical;
  return usable ? DisplayPlan::Virtual : DisplayPlan::None;
}

DisplayRequest virtual_display_request(const lund_hello& hello, const HostOptions& options,
                                       const std::vector<DisplayInfo>& displays, int main,
                                       const std::vector<int>& right_edges) {
  const DisplayInfo* main_display = main < 0 ? nullptr : &displays[static_cast<std::size_t>(main)];
  DisplayRequest request;
  if (hello.width != 0 && hello.height != 0) {
    request.width = hello.width;
    request.height = hello.height;
  } else {
    request.width = main_display ? main_display->width : VIRTUAL_DEFAULT_WIDTH;
    request.height = main_display ? main_display->height : VIRTUAL_DEFAULT_HEIGHT;
  }
  request.fps = hello.fps != 0 ? hello.fps : options.fps;

  std::vector<int> edges = right_edges;
  for (const DisplayInfo& display : displays)
    if (!display.is_virtual) edges.push_back(display.right);
  request.place.x = edges.empty() ? 0 : std::ranges::max(edges);
  request.place.y = main_display ? main_display->top : 0;
  return request;
}

std::string no_display_message(int screen, const std::vector<MonitorEntry>& entries, int mode,
                               bool usable) {
  char text[160];
  if (screen == 0) {
    std::snprintf(text, sizeof text, "no monitor is on and %s",
                  usable ? "the virtual display failed" : "no virtual display driver is usable");
    return text;
  }
  const int others = std::max(physical_count(entries) - 1, 0);
  std::snprintf(
      text, sizeof text, "only %d other active monitor%s and %s", others, others == 1 ? "" : "s",
      mode != VIRTUAL_DISPLAY_OFF ? "no virtual display driver (see README: Virtual displays)"
                                  : "--virtual-display off");
  return text;
}

std::string bad_screen_message() {
  char text[32];
  std::snprintf(text, sizeof text, "screens are 0..%d", LAST_SCREEN);
  return text;
}

const char* physical_instead_reason(int mode, bool usable) {
  if (!usable) return "no usable virtual display driver";
  return mode == VIRTUAL_DISPLAY_AUTO ? "--virtual-display auto uses it only without a monitor"
                                      : "virtual display failed";
}

int clamp_bitrate(std::uint32_t kbps) {
  return static_cast<int>(std::clamp<std::uint32_t>(kbps, BITRATE_MIN_KBPS, BITRATE_MAX_KBPS));
}

StreamValues choose_stream(const lund_hello& hello, const HostOptions& options,
                           const DisplayInfo& display, int path) {
  StreamValues stream;
  std::tie(stream.width, stream.height) =
      fit(display.width, display.height, hello.width, hello.height);

  int fps = hello.fps != 0 ? hello.fps : options.fps;
  if (display.refresh_hz > 0) fps = std::min(fps, display.refresh_hz);
  stream.fps = std::clamp(fps, 1, FPS_MAX);

  stream.bitrate_kbps =
      hello.bitrate_kbps != 0 ? clamp_bitrate(hello.bitrate_kbps) : options.bitrate_kbps;
  stream.hevc = hello.codec == CODEC_HEVC || (hello.codec != CODEC_H264 && options.hevc);

  int limit = options.max_datagram;
  if (hello.max_datagram != 0) limit = std::min<int>(limit, hello.max_datagram);
  stream.datagram = std::max(std::min(limit, lund_path_max_datagram(path)), DATAGRAM_MIN);
  stream.payload = stream.datagram - LUND_SEAL_OVERHEAD;
  stream.fec_percent = hello.fec_percent != 0 ? hello.fec_percent : options.fec_percent;
  return stream;
}

std::string client_text(const std::string& name, const std::string& code) {
  return "\"" + name + "\" (" + code + ")";
}
