#include "worker/admin_commands.h"

#include <exception>

#include "connection/lists.h"
#include "connection/wiped.h"
#include "control/keystore.h"
#include "control/settings.h"
#include "host/server.h"

namespace host_app {

using host_service::Request;
using host_service::Status;
using host_service::Verb;

namespace {

constexpr std::size_t SHOWN_BYTES_MAX = 128;  // of one text from outside
constexpr unsigned char FIRST_PRINTABLE = 32;
constexpr unsigned char DELETE = 127;

// A hostile name can neither forge lines nor flood the answer.
std::string safe(const std::string& text) {
  std::string shown;
  for (const char character : text) {
    if (shown.size() == SHOWN_BYTES_MAX) break;
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= FIRST_PRINTABLE && byte != DELETE) shown += character;
  }
  return shown;
}

std::string hex(const std::string& bytes) {
  std::string text(2 * bytes.size() + 1, '\0');
  lund_hex_encode(text.data(), reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  text.pop_back();
  return text;
}

int virtual_display_number(const std::string& mode) {
  return mode == "off" ? 0 : mode == "auto" ? 1 : 2;
}

std::string defaults_line(const HostOptions& options) {
  std::string line = "defaults";
  for (const int value :
       {int{options.port}, options.fps, options.bitrate_kbps, options.hevc ? 1 : 2,
        options.audio ? 1 : 0, virtual_display_number(options.virtual_display),
        options.mac_keys ? 1 : 0, options.max_datagram})
    line += ' ' + std::to_string(value);
  return line + '\n';
}

// ---- The verbs

void show_status(HostServer& server, Result* result) {
  StatusView view{server.key_code(),      server.status(), server.options(), false, false, false,
                  server.paired_devices()};
  const lund_pairing_status pairing = server.pairing_status();
  view.pairing_open = pairing.open != 0;
  view.has_password = pairing.has_password != 0;
  view.password_locked = pairing.password_locked != 0;
  result->text = status_text(view);
}

void open_pairing(HostServer& server, const Request& request, Result* result) {
  server.pairing_open(host_service::read_u32(request.payload.data()));
  result->text = server.pairing_status().pin;
}

void set_password(HostServer& server, const Request& request, Result* result) {
  const Wiped password(std::string(request.payload.begin(), request.payload.end()));
  if (!server.set_password(password.value)) *result = {Status::Failed, "password operation failed"};
}

void remove_device(HostServer& server, const Request& request, Result* result) {
  if (!server.remove_device({request.payload.begin(), request.payload.end()}))
    *result = {Status::Failed, "device not paired"};
}

void set_relays(const Request& request, Result* result) {
  lund_relay_config relays;
  const bool parsed =
      lund_relay_config_load(&relays, reinterpret_cast<const char*>(request.payload.data()),
                             request.payload.size()) == 0;
  const bool saved = parsed && keystore::save_relays(relays);
  if (!parsed)
    *result = {Status::Invalid, "invalid relay configuration"};
  else if (!saved)
    *result = {Status::Persistence, "relay persistence failed"};
}

void set_settings(const Request& request, Result* result) {
  host_service::Settings settings;
  if (!host_service::decode_settings(request.payload, &settings))
    *result = {Status::Invalid, "invalid stream settings"};
  else if (!save_settings(settings))
    *result = {Status::Persistence, "settings persistence failed"};
}

void carry_out(HostServer& server, const Request& request, bool* stop, Result* result) {
  switch (request.verb) {
    case Verb::Status:
      return show_status(server, result);
    case Verb::PairingOpen:
      return open_pairing(server, request, result);
    case Verb::PairingClose:
      return server.pairing_close();
    case Verb::SetPassword:
      return set_password(server, request, result);
    case Verb::ClearPassword:
      return server.clear_password();
    case Verb::RemoveDevice:
      return remove_device(server, request, result);
    case Verb::SetRelays:
      return set_relays(request, result);
    case Verb::SetSettings:
      return set_settings(request, result);
    case Verb::Stop:
      *stop = true;
      result->text = "worker stopping";
      return;
    case Verb::Verb9:
    case Verb::Heartbeat:
    case Verb::SecureAttention:
      break;
  }
  *result = {Status::Denied, "command denied"};
}

}  // namespace

Result execute(HostServer& server, const Request& request, bool* stop) {
  Result result;
  if (end_if_unhealthy(stop, &result)) return result;
  try {
    carry_out(server, request, stop, &result);
    end_if_unhealthy(stop, &result);
  } catch (...) {
    *stop = true;
    wipe_owned(result.text);
    result = {Status::Persistence, "machine state invalid"};
  }
  return result;
}

bool end_if_unhealthy(bool* stop, Result* result) {
  if (keystore::hostStoreHealthy(nullptr)) return false;
  *stop = true;
  wipe_owned(result->text);
  *result = {Status::Persistence, "machine persistence failure"};
  return true;
}

std::string status_text(const StatusView& view) {
  std::string text = "worker running; code " + safe(view.key_code) + "; " +
                     (view.host.active ? "connected" : "idle") + '\n';
  text += defaults_line(view.defaults);
  text += std::string("pairing ") + (view.pairing_open ? "open" : "closed") + "; password " +
          (view.has_password ? "configured" : "unset") + "; lockout " +
          (view.password_locked ? "active" : "inactive") + '\n';
  for (const ScreenStatus& screen : view.host.screens)
    text += "screen " + std::to_string(screen.screen) + "; " + safe(screen.backend) + " / " +
            safe(screen.encoder) + "; " + std::to_string(screen.width) + 'x' +
            std::to_string(screen.height) + '\n';
  for (const PairedDevice& device : view.devices)
    text += "device " + hex(device.key) + ' ' + safe(device.code) + ' ' + safe(device.name) + '\n';
  if (text.size() > host_service::RESPONSE_TEXT_MAX) text.resize(host_service::RESPONSE_TEXT_MAX);
  return text;
}

}  // namespace host_app
