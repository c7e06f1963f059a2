// Read-only snapshots of a host, for whoever shows them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ScreenStatus {
  int screen = 0;
  std::uint32_t session = 0;
  std::string peer;  // the client's address; empty once the engine has forgotten the session
  std::string path;  // "LAN", "Direct", "P2P", "Relay", "-"; empty as `peer`
  std::string device;
  bool is_virtual = false;
  int width = 0;
  int height = 0;
  int fps = 0;
  int bitrate_kbps = 0;
  std::string encoder;
  std::string backend;
  // Of the last whole second; the client's own as it reported them last.
  double measured_fps = 0;
  double measured_mbps = 0;
  double encode_ms = 0;
  double rtt_ms = 0;
  double loss_percent = 0;
  double decode_ms = 0;
  bool client_stats_valid = false;  // the client reported in that second
};

struct HostStatus {
  bool active = false;
  std::string client_name;
  std::string client_code;
  std::vector<ScreenStatus> screens;  // by screen number
  std::uint32_t pending = 0;          // setups waiting or under way
  bool audio_allowed = false;         // both of the session on screen 0
  bool audio_running = false;
  std::string virtual_display_line;
};

struct PairedDevice {
  std::string name;
  std::string code;
  std::string key;             // 32 bytes
  std::uint64_t added_at = 0;  // seconds since 1970 UTC
  bool connected = false;      // a session of it runs
};
