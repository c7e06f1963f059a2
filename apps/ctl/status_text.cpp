#include "apps/ctl/status_text.h"

#include <iterator>

#include "control/host_commands.h"

namespace ctl {

namespace {

bool take(std::string_view* text, std::string_view prefix) {
  if (!text->starts_with(prefix)) return false;
  text->remove_prefix(prefix.size());
  return true;
}

// What stands before the separator, or all of it without one; the text goes on behind.
std::string_view take_part(std::string_view* text, std::string_view separator) {
  const std::size_t end = text->find(separator);
  const std::string_view part = text->substr(0, end);
  text->remove_prefix(end == text->npos ? text->size() : end + separator.size());
  return part;
}

std::optional<std::uint32_t> number(std::string_view text, std::uint32_t max = UINT32_MAX) {
  return parse_number(std::string(text), 0, max);
}

void read_service(std::string_view line, std::string_view rest, HostReport* report) {
  ServiceStatus service;
  service.line = line;
  while (!rest.empty()) {
    if (take(&rest, "last exit: ")) {
      service.last_exit = rest;
      break;
    }
    std::string_view part = take_part(&rest, "; ");
    if (take(&part, "worker PID ")) service.worker_pid = number(part);
    if (take(&part, "session ")) service.session = number(part);
    if (take(&part, "starts ")) service.starts = number(part);
  }
  report->service = std::move(service);
}

// Nothing unless it is a record that could have been stored.
std::optional<host_service::Settings> read_settings(std::string_view rest) {
  constexpr std::uint32_t MAXIMA[] = {UINT16_MAX, UINT16_MAX, UINT32_MAX, UINT8_MAX,
                                      UINT8_MAX,  UINT8_MAX,  UINT8_MAX,  UINT16_MAX};
  std::uint32_t values[std::size(MAXIMA)];
  for (std::size_t i = 0; i < std::size(MAXIMA); ++i) {
    const auto value = number(take_part(&rest, " "), MAXIMA[i]);
    if (!value) return std::nullopt;
    values[i] = *value;
  }
  if (!rest.empty()) return std::nullopt;
  host_service::Settings settings;
  settings.port = static_cast<std::uint16_t>(values[0]);
  settings.fps = static_cast<std::uint16_t>(values[1]);
  settings.bitrate_kbps = values[2];
  settings.codec = static_cast<std::uint8_t>(values[3]);
  settings.audio = static_cast<std::uint8_t>(values[4]);
  settings.virtual_display = static_cast<std::uint8_t>(values[5]);
  settings.mac_keys = static_cast<std::uint8_t>(values[6]);
  settings.max_datagram = static_cast<std::uint16_t>(values[7]);
  if (host_service::encode_settings(settings).empty()) return std::nullopt;
  return settings;
}

void read_worker(std::string_view rest, HostReport* report) {
  WorkerStatus worker;
  if (!take(&rest, "code ")) return;
  worker.key_code = take_part(&rest, "; ");
  worker.connected = rest == "connected";
  if (worker.connected || rest == "idle") report->worker = std::move(worker);
}

void read_pairing(std::string_view rest, HostReport* report) {
  const std::string_view open = take_part(&rest, "; ");
  const std::string_view password = take_part(&rest, "; ");
  report->pairing =
      PairingLine{open == "open", password == "password configured", rest == "lockout active"};
}

void read_screen(std::string_view rest, HostReport* report) {
  const auto index = number(take_part(&rest, "; "));
  const std::size_t size_at = rest.rfind("; ");
  if (!index || size_at == rest.npos) return;
  std::string_view size = rest.substr(size_at + 2);
  const auto width = number(take_part(&size, "x"));
  const auto height = number(size);
  if (!width || !height) return;
  rest = rest.substr(0, size_at);
  const std::string_view capture = take_part(&rest, " / ");
  report->screens.push_back({*index, std::string(capture), std::string(rest), *width, *height});
}

void read_device(std::string_view rest, HostReport* report) {
  DeviceLine device;
  const std::string key(take_part(&rest, " "));
  if (lund_hex_decode(device.key.data(), device.key.size(), key.c_str()) != 0) return;
  device.code = take_part(&rest, " ");
  device.name = rest;
  report->devices.push_back(std::move(device));
}

void read_line(std::string_view line, HostReport* report) {
  std::string_view rest = line;
  if (take(&rest, "service running; ") || rest == "service running")
    read_service(line, rest, report);
  else if (take(&rest, "stored "))
    report->stored = read_settings(rest);
  else if (take(&rest, "worker running; "))
    read_worker(rest, report);
  else if (take(&rest, "worker: "))
    report->worker_trouble = rest;
  else if (take(&rest, "defaults "))
    report->running = read_settings(rest);
  else if (take(&rest, "pairing "))
    read_pairing(rest, report);
  else if (take(&rest, "screen "))
    read_screen(rest, report);
  else if (take(&rest, "device "))
    read_device(rest, report);
}

}  // namespace

HostReport parse_status(std::string_view text) {
  HostReport report;
  while (!text.empty()) {
    if (text.find('\n') == text.npos) {
      report.cut = true;
      break;
    }
    read_line(take_part(&text, "\n"), &report);
  }
  return report;
}

}  // namespace ctl
