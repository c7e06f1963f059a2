#include "apps/client/view/overlay.h"

#include <cstdio>

namespace {

template <typename... Values>
std::string format(const char* text, Values... values) {
  char line[256];
  std::snprintf(line, sizeof line, text, values...);
  return line;
}

}  // namespace

std::vector<std::string> statistics_lines(const OverlayFigures& f) {
  std::vector<std::string> lines;
  lines.push_back(format("%-9s %8s %8s", "ms", "p50", "p95"));
  for (const StageFigure& stage : f.stages) {
    lines.push_back(stage.measured
                        ? format("%-9s %8.2f %8.2f", stage.name, stage.p50_ms, stage.p95_ms)
                        : format("%-9s %8s %8s", stage.name, "-", "-"));
  }
  lines.push_back(format("%.1f fps  %.2f Mbps", f.fps, f.mbps));
  lines.push_back(format("rtt %.2f ms  loss %.1f%%", f.rtt_ms, f.loss_percent));
  lines.push_back("path " + (f.path.empty() ? std::string("-") : f.path));
  lines.push_back(f.sound
                      ? format("sound %.0f ms buffered, %.0f at most", f.sound_ms, f.sound_most_ms)
                      : std::string("sound off"));
  lines.push_back(format("%s %dx%d in %dx%d", f.codec.c_str(), f.stream.width, f.stream.height,
                         f.window.width, f.window.height));
  return lines;
}

std::string help_hint(const std::string& key) {
  return key + "+H shows the keys, " + key + " alone lets go of mouse and keyboard";
}

std::vector<std::string> help_lines(const std::string& key) {
  return {key + "    let go of mouse and keyboard, or take them again",
          key + "+F  full screen",
          key + "+R  relative mouse, for games and 3D",
          key + "+S  statistics",
          key + "+M  sound on and off",
          key + "+C  clipboard on and off",
          key + "+D  Ctrl+Alt+Delete to the host",
          key + "+H  this help",
          key + "+Q  leave"};
}

std::vector<std::string> banner_lines(const std::string& host, SessionState session,
                                      const std::string& session_text, ScreenState screen,
                                      const std::string& screen_text) {
  switch (session) {
    case SessionState::Connecting:
      return {"connecting to " + host + "…"};
    case SessionState::BrokenOff:
      return {session_text, "connecting again…"};
    case SessionState::Ended:
      if (session_text.empty()) return {"the stream has ended"};
      return {session_text, "close this window to leave"};
    case SessionState::Streaming:
      break;
  }
  switch (screen) {
    case ScreenState::Waiting:
      return {"waiting for the screen…"};
    case ScreenState::Ended:
      return {screen_text.empty() ? "this screen has ended" : screen_text};
    case ScreenState::Streaming:
      break;
  }
  return {};
}

std::string window_title(const std::string& host, int screen, int screens) {
  if (screens == 1 && screen == 0) return host;
  return host + " - screen " + std::to_string(screen);
}
