#include "apps/lunderhaze/console.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "connection/printf_format.h"
#include "control/host_commands.h"
#include "host/hello.h"
#include "host/server.h"

namespace {

constexpr const char* PORT_WORDS = " on UDP port ";

LUND_PRINTF(1, 2)
std::string print(const char* format, ...) {
  char text[512];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

std::string date(std::uint64_t unix_seconds) {
  const std::chrono::year_month_day day(std::chrono::floor<std::chrono::days>(
      std::chrono::sys_seconds(std::chrono::seconds(unix_seconds))));
  return print("%04d-%02u-%02u", static_cast<int>(day.year()), static_cast<unsigned>(day.month()),
               static_cast<unsigned>(day.day()));
}

std::string time_left(const lund_pairing_status& pairing) {
  return pairing.seconds_left == 0 ? " until a device is paired"
                                   : print(" for %u s", pairing.seconds_left);
}

std::string pairing_state(const lund_pairing_status& pairing) {
  std::string text = "Pairing: closed";
  if (pairing.open)
    text = "Pairing: open" + time_left(pairing) + ", PIN " + std::string(pairing.pin);
  text += pairing.has_password ? "; password set" : "; no password";
  return text + (pairing.password_locked ? " (locked after wrong guesses)\n" : "\n");
}

std::string screen_lines(const ScreenStatus& screen) {
  std::string text = print("  Screen %d: %s%s, %dx%d at %d fps, %d kbit/s, %s, %s", screen.screen,
                           screen.device.c_str(), screen.is_virtual ? " (virtual)" : "",
                           screen.width, screen.height, screen.fps, screen.bitrate_kbps,
                           screen.encoder.c_str(), screen.backend.c_str());
  if (!screen.peer.empty()) text += ", " + screen.path + " " + screen.peer;
  text += print("\n    %.1f fps, %.2f Mbit/s, encode %.1f ms", screen.measured_fps,
                screen.measured_mbps, screen.encode_ms);
  if (screen.client_stats_valid)
    text += print(", rtt %.1f ms, loss %.1f %%, decode %.1f ms", screen.rtt_ms, screen.loss_percent,
                  screen.decode_ms);
  return text + "\n";
}

std::string client_lines(const HostStatus& status) {
  if (!status.active)
    return status.pending == 0 ? "No client is connected\n" : "A client is connecting\n";
  std::string text =
      "Client " + client_text(status.client_name, status.client_code) + ", sound " +
      (status.audio_running ? "on" : (status.audio_allowed ? "off" : "not allowed")) + "\n";
  for (const ScreenStatus& screen : status.screens) text += screen_lines(screen);
  return text;
}

std::string device_lines(const std::vector<PairedDevice>& devices) {
  if (devices.empty()) return "No paired devices\n";
  std::string text = "Paired devices:\n";
  for (const PairedDevice& device : devices) {
    text += "  " + client_text(device.name, device.code) + ", added " + date(device.added_at) +
            (device.connected ? ", connected\n" : "\n");
  }
  return text;
}

}  // namespace

const char* const KEYS_TEXT =
    "p  open pairing for 120 s\n"
    "s  status\n"
    "h  this help\n"
    "q  quit\n";

HostReport report_on(HostServer& host, std::uint16_t port) {
  HostReport report;
  report.key_code = host.key_code();
  report.port = port;
  report.pairing = host.pairing_status();
  report.internet = host.internet_status();
  report.status = host.status();
  report.devices = host.paired_devices();
  return report;
}

std::string report_text(const HostReport& report) {
  std::string text = "Host " + report.key_code + PORT_WORDS + std::to_string(report.port) + "\n" +
                     pairing_state(report.pairing);
  for (const std::string& line : report.internet) text += line + "\n";
  text += report.status.virtual_display_line + "\n";
  text += client_lines(report.status);
  if (!report.speakers.empty()) text += report.speakers + "\n";
  return text + device_lines(report.devices);
}

std::optional<std::uint16_t> reported_port(const std::string& report) {
  const std::size_t line_end = std::min(report.find('\n'), report.size());
  const std::size_t words = report.find(PORT_WORDS);
  if (words >= line_end) return std::nullopt;
  const std::size_t digits = words + std::string_view(PORT_WORDS).size();
  const auto port = parse_number(report.substr(digits, line_end - digits), 1, 65'535);
  return port ? std::optional(static_cast<std::uint16_t>(*port)) : std::nullopt;
}

std::string stored_text(const StoredHost& stored) {
  std::string text = stored.key_code.empty() ? "No identity yet: the first start makes one\n"
                                             : "Host " + stored.key_code + "\n";
  text += stored.has_password ? "Pairing password set\n" : "No pairing password\n";
  if (stored.relays.empty()) text += "No relay servers\n";
  for (const std::string& relay : stored.relays) text += "Relay " + relay + "\n";
  return text + device_lines(stored.devices);
}

std::string mute_line(bool on) {
  return on ? "This computer's speakers are muted while a client streams"
            : "This computer's speakers stay on while a client streams";
}

std::string clipboard_line(bool on) {
  return on ? "The clipboard is shared with clients" : "The clipboard is not shared with clients";
}

std::string pairing_line(const lund_pairing_status& pairing) {
  if (!pairing.open) return "Pairing is closed";
  return "To pair a device: key code " + std::string(pairing.key_code) + ", PIN " + pairing.pin +
         (pairing.seconds_left == 0 ? "" : ", open" + time_left(pairing));
}

std::string listening_line(const std::string& key_code, std::uint16_t port, bool keys) {
  return "Listening on UDP port " + std::to_string(port) + ", key code " + key_code +
         (keys ? ". Keys: p pairs a device, s status, h help, q or Ctrl+C stops."
               : ". Ctrl+C stops.");
}

std::string pair_back_question(const std::string& name, const std::string& code,
                               const std::string& addresses) {
  return client_text(name, code) + " at " + (addresses.empty() ? "no LAN address" : addresses) +
         " offers to be reached from this computer: accept? [y/N]";
}
