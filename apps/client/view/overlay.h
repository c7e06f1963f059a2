// The words over the picture: statistics, the help lines, and what is said while there is no
// stream. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/client/session_sinks.h"
#include "apps/client/view/geometry.h"

struct StageFigure {
  const char* name = "";
  double p50_ms = 0;
  double p95_ms = 0;
  bool measured = false;
};

struct OverlayFigures {
  std::vector<StageFigure> stages;
  double fps = 0;  // shown
  double mbps = 0;
  double rtt_ms = 0;
  double loss_percent = 0;
  std::string path;  // "LAN 192.168.1.5:9876"
  bool sound = false;
  double sound_ms = 0;       // buffered now
  double sound_most_ms = 0;  // at most, in the last second
  ViewSize stream;
  ViewSize window;
  std::string codec;
};

std::vector<std::string> statistics_lines(const OverlayFigures& figures);

// One line for the start, and the lines of the help overlay. `key` is the release key's label.
std::string help_hint(const std::string& key);
std::vector<std::string> help_lines(const std::string& key);

// What a window says instead of, or over, its picture; empty while it streams.
std::vector<std::string> banner_lines(const std::string& host, SessionState session,
                                      const std::string& session_text, ScreenState screen,
                                      const std::string& screen_text);

std::string window_title(const std::string& host, int screen, int screens);
