// What is only told: status and devices; and the choice of one of these.
#include <algorithm>
#include <iterator>

#include "apps/ctl/commands.h"
#include "apps/ctl/settings_text.h"
#include "apps/ctl/shown_text.h"
#include "control/text.h"

namespace ctl {

using nlohmann::ordered_json;

namespace {

// Why a report has nothing of a worker's.
Outcome no_worker(const HostReport& report) {
  return failure({host_service::Status::Unavailable,
                  report.worker_trouble.empty()
                      ? "the worker is not running"
                      : "the worker does not answer (" + report.worker_trouble + ")"});
}

std::string hex_of(const DeviceLine& device) {
  char hex[2 * LUND_KEY_SIZE + 1];
  lund_hex_encode(hex, device.key.data(), device.key.size());
  return hex;
}

std::string device_line(const DeviceLine& device) {
  return shown_text(device.code) + "  " + hex_of(device) + "  \"" + shown_text(device.name) +
         "\"\n";
}

std::string device_lines(const std::vector<DeviceLine>& devices) {
  std::string lines;
  for (const DeviceLine& device : devices) lines += device_line(device);
  return lines.empty() ? "No paired devices\n" : lines;
}

// ---- For a person

std::string pairing_text(const PairingLine& pairing) {
  std::string text = std::string("Pairing: ") + (pairing.open ? "open" : "closed") +
                     (pairing.password ? "; password set" : "; no password");
  return text + (pairing.lockout ? " (locked after wrong guesses)\n" : "\n");
}

std::string one_line(std::string lines) {
  std::replace(lines.begin(), lines.end(), '\n', ' ');
  if (!lines.empty()) lines.pop_back();
  return lines;
}

std::string settings_text(const HostReport& report) {
  std::string text;
  if (report.running) text += "Settings: " + one_line(setting_lines(*report.running)) + "\n";
  if (!report.stored) return text;
  if (!report.running) return text + "Stored: " + one_line(setting_lines(*report.stored)) + "\n";
  const auto changed = differing_settings(*report.stored, *report.running);
  if (changed.empty()) return text;
  return text +
         "From the worker's next start: " + one_line(setting_lines(*report.stored, changed)) + "\n";
}

std::string screen_text(const ScreenLine& screen) {
  return "Screen " + std::to_string(screen.screen) + ": " + shown_text(screen.capture) + ", " +
         shown_text(screen.encoder) + ", " + std::to_string(screen.width) + "x" +
         std::to_string(screen.height) + "\n";
}

std::string report_text(const HostReport& report) {
  std::string text;
  if (report.service) text += shown_text(report.service->line) + "\n";
  if (report.worker)
    text += "Host " + shown_text(report.worker->key_code) + ": " +
            (report.worker->connected ? "a client is connected\n" : "no client is connected\n");
  text += settings_text(report);
  if (report.pairing) text += pairing_text(*report.pairing);
  for (const ScreenLine& screen : report.screens) text += screen_text(screen);
  if (report.worker) text += device_lines(report.devices);
  if (report.cut) text += "The service's answer was cut off here\n";
  return text;
}

// ---- For a script

template <class T>
ordered_json or_null(const std::optional<T>& value) {
  return value ? ordered_json(*value) : ordered_json(nullptr);
}

ordered_json device_json(const DeviceLine& device) {
  return {{"key_code", shown_text(device.code)},
          {"name", shown_text(device.name)},
          {"key", hex_of(device)}};
}

ordered_json devices_json(const std::vector<DeviceLine>& devices) {
  ordered_json json = ordered_json::array();
  for (const DeviceLine& device : devices) json.push_back(device_json(device));
  return json;
}

ordered_json service_json(const std::optional<ServiceStatus>& service) {
  if (!service) return nullptr;
  return {{"worker_pid", or_null(service->worker_pid)},
          {"session", or_null(service->session)},
          {"starts", or_null(service->starts)},
          {"last_exit", shown_text(service->last_exit)}};
}

ordered_json pairing_json(const std::optional<PairingLine>& pairing) {
  if (!pairing) return nullptr;
  return {{"open", pairing->open}, {"password", pairing->password}, {"lockout", pairing->lockout}};
}

ordered_json screens_json(const std::vector<ScreenLine>& screens) {
  ordered_json json = ordered_json::array();
  for (const ScreenLine& screen : screens)
    json.push_back({{"screen", screen.screen},
                    {"capture", shown_text(screen.capture)},
                    {"encoder", shown_text(screen.encoder)},
                    {"width", screen.width},
                    {"height", screen.height}});
  return json;
}

ordered_json settings_json(const std::optional<host_service::Settings>& settings) {
  return settings ? setting_values(*settings) : ordered_json(nullptr);
}

ordered_json worker_json(const HostReport& report) {
  if (!report.worker) return nullptr;
  return {
      {"key_code", shown_text(report.worker->key_code)}, {"connected", report.worker->connected},
      {"settings", settings_json(report.running)},       {"pairing", pairing_json(report.pairing)},
      {"screens", screens_json(report.screens)},         {"devices", devices_json(report.devices)}};
}

// ---- Devices

std::optional<std::vector<DeviceLine>> ask_devices(ServiceLink& service, Outcome* refusal) {
  auto report = ask_status(service, refusal);
  if (!report) return std::nullopt;
  if (report->worker) return std::move(report->devices);
  *refusal = no_worker(*report);
  return std::nullopt;
}

Outcome tell_devices(Exit exit, const std::string& error, const std::vector<DeviceLine>& devices) {
  Outcome outcome{exit, device_lines(devices), error, {}};
  outcome.json["devices"] = devices_json(devices);
  return outcome;
}

bool answers_to(const DeviceLine& device, const std::string& selector) {
  return selector == device.name || selector == shown_text(device.name) ||
         selector == hex_of(device) || is_code_of(selector, device.key.data());
}

}  // namespace

Outcome show_status(ServiceLink& service) {
  Outcome outcome;
  const auto report = ask_status(service, &outcome);
  if (!report) return outcome;
  if (!report->worker) outcome = no_worker(*report);
  outcome.text = report_text(*report);
  outcome.json["service"] = service_json(report->service);
  outcome.json["stored"] = settings_json(report->stored);
  outcome.json["worker"] = worker_json(*report);
  outcome.json["cut"] = report->cut;
  return outcome;
}

Outcome list_devices(ServiceLink& service) {
  Outcome outcome;
  const auto devices = ask_devices(service, &outcome);
  if (!devices) return outcome;
  return tell_devices(Exit::Done, {}, *devices);
}

Outcome remove_device(ServiceLink& service, const std::string& selector) {
  Outcome outcome;
  const auto devices = ask_devices(service, &outcome);
  if (!devices) return outcome;
  std::vector<DeviceLine> found;
  std::copy_if(devices->begin(), devices->end(), std::back_inserter(found),
               [&](const DeviceLine& device) { return answers_to(device, selector); });
  const std::string named = "\"" + shown_text(selector) + "\"";
  if (found.empty()) return failure(Exit::NotFound, "no paired device answers to " + named);
  if (found.size() > 1)
    return tell_devices(
        Exit::Invalid, "several devices answer to " + named + ": name one by its whole key", found);
  const DeviceLine& device = found[0];
  const host_service::Result result =
      service.ask({host_service::Verb::RemoveDevice, {device.key.begin(), device.key.end()}});
  if (result.status != host_service::Status::Ok) return failure(result);
  outcome.text = "Removed: " + device_line(device);
  outcome.json["removed"] = device_json(device);
  return outcome;
}

}  // namespace ctl
