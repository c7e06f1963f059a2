// What the program shows a person: reports on a host, running or not, and the few lines and
// questions of a running one. Each text is made from values, so that it can be read without a host.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "connection/conn_host.h"
#include "host/status.h"

class HostServer;

struct HostReport {
  std::string key_code;
  std::uint16_t port = 0;
  lund_pairing_status pairing;
  std::vector<std::string> internet;  // one line and one for each relay server
  HostStatus status;
  std::string speakers;  // may be empty
  std::vector<PairedDevice> devices;
};
HostReport report_on(HostServer& host, std::uint16_t port);
std::string report_text(const HostReport& report);
// The port that such a text names.
std::optional<std::uint16_t> reported_port(const std::string& report);

// What is known of a host that isn't running.
struct StoredHost {
  std::string key_code;  // empty before its first start
  bool has_password = false;
  std::vector<std::string> relays;
  std::vector<PairedDevice> devices;
};
std::string stored_text(const StoredHost& stored);

// How the switches stand.
std::string mute_line(bool on);
std::string clipboard_line(bool on);

// How to pair, as long as the window is open; otherwise that it is closed.
std::string pairing_line(const lund_pairing_status& pairing);

std::string listening_line(const std::string& key_code, std::uint16_t port, bool keys);
extern const char* const KEYS_TEXT;

std::string pair_back_question(const std::string& name, const std::string& code,
                               const std::string& addresses);
