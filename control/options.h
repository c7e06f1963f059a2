// Everything that can be set for a host, and the host's command-line parser. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct HostOptions {
  bool machine_mode = false;  // the host runs as the machine-wide worker
  std::uint16_t port = 9876;
  std::string pin;      // by hand: the pairing password of this run
  std::string display;  // an index into the list of displays, or a device name
  std::int32_t fps = 60;
  std::int32_t bitrate_kbps = 20000;
  bool hevc = true;     // preferred when the client doesn't say
  std::string encoder;  // tried first
  std::int32_t fec_percent = 15;
  bool audio = true;
  bool no_mute_host = false;
  bool mac_keys = true;                  // the client's Ctrl and GUI keys trade places
  std::string virtual_display = "auto";  // "auto", "always", "off"
  std::int32_t max_datagram = 1400;      // bytes on the wire
  bool console = false;
  bool list_displays = false;
  bool help = false;
};

// The usage, five lines, each closed by a line feed.
extern const char* const HOST_USAGE;

// Takes the arguments (without the program's name) left to right into `options`, which holds the
// defaults; later ones override. The first error ends the walk: its message goes to `error` (may be
// null) and the result is false; what earlier options set stays set.
bool parse_host_options(const std::vector<std::string>& args, HostOptions* options,
                        std::string* error);
