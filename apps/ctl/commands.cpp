#include "apps/ctl/commands.h"

#include "apps/ctl/settings_text.h"
#include "apps/ctl/shown_text.h"

namespace ctl {

using host_service::Request;
using host_service::Result;
using host_service::Status;
using host_service::Verb;

namespace {

Outcome tell(const std::string& line) {
  return {Exit::Done, line + "\n", {}, {}};
}

// Of a command whose answer tells nothing but whether it was done.
Outcome carry_out(ServiceLink& service, const Request& request, const std::string& done) {
  const Result result = service.ask(request);
  return result.status == Status::Ok ? tell(done) : failure(result);
}

std::vector<unsigned char> u32_bytes(std::uint32_t value) {
  return {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
          static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
}

// ---- Password

// Twice the same, where it is typed blindly.
std::string read_new_password(PasswordSource& passwords, Password* password) {
  if (!passwords.read("New pairing password: ", password)) return "no password was given";
  if (!passwords.blind()) return {};
  Password again;
  if (!passwords.read("The same again: ", &again)) return "no password was given a second time";
  return again.bytes() == password->bytes() ? "" : "the two passwords differ";
}

std::string password_error(const Password& password, const Request& request) {
  if (password.bytes().empty()) return "the password is empty: clear-password removes it";
  if (password.too_long())
    return "the password is longer than " + std::to_string(host_service::PASSWORD_MAX) + " bytes";
  return host_service::valid_request(request) ? "" : "the password is not UTF-8 text";
}

// ---- Restarting

Outcome restart(ServiceLink& service) {
  const Result result = service.ask({Verb::Verb9, {}});
  return result.status == Status::Ok ? tell("The worker restarts") : failure(result);
}

// Stores what counts from the worker's next start, and brings that about when asked to. `stored`:
// the report's lines on it.
Outcome store(ServiceLink& service, const Request& request, Apply apply, Outcome stored) {
  const Result result = service.ask(request);
  if (result.status != Status::Ok) return failure(result);
  stored.json["restarted"] = false;
  if (apply == Apply::AtNextStart) {
    stored.text += "Stored: the next start of the worker applies it\n";
    return stored;
  }
  const Outcome restarted = restart(service);
  if (restarted.done()) {
    stored.text += "Stored\n" + restarted.text;
    stored.json["restarted"] = true;
    return stored;
  }
  stored.exit = restarted.exit;
  stored.error = "stored, but not applied: " + restarted.error;
  return stored;
}

Outcome refuse_while_connected(const std::string& what_then) {
  return failure(Exit::Failed, "a client is connected: " + what_then);
}
const char* const NOTHING_STORED =
    "nothing was stored; without --restart it is, for the worker's next start";

}  // namespace

Outcome open_pairing(ServiceLink& service, std::uint32_t seconds) {
  const Request request{Verb::PairingOpen, u32_bytes(seconds)};
  if (!host_service::valid_request(request))
    return failure(Exit::Invalid,
                   "pairing is open for " + std::to_string(host_service::PAIRING_SECONDS_MIN) +
                       " to " + std::to_string(host_service::PAIRING_SECONDS_MAX) + " seconds");
  const Result result = service.ask(request);
  if (result.status != Status::Ok) return failure(result);
  const std::string pin = shown_text(result.text);
  if (pin.empty()) return failure(Exit::Failed, "the worker opened pairing without a PIN");
  Outcome outcome =
      tell("PIN " + pin + ", for " + std::to_string(seconds) + " seconds or one device");
  outcome.json = {{"pin", pin}, {"seconds", seconds}};
  return outcome;
}

Outcome close_pairing(ServiceLink& service) {
  return carry_out(service, {Verb::PairingClose, {}}, "Pairing is closed");
}

Outcome set_password(ServiceLink& service, PasswordSource& passwords) {
  Password password;
  std::string error = read_new_password(passwords, &password);
  Request request{Verb::SetPassword, {}};
  request.payload.assign(password.bytes().begin(), password.bytes().end());
  if (error.empty()) error = password_error(password, request);
  if (!error.empty()) return failure(Exit::Invalid, error + "; nothing was changed");
  return carry_out(service, request, "The pairing password is set");
}

Outcome clear_password(ServiceLink& service) {
  return carry_out(service, {Verb::ClearPassword, {}}, "There is no pairing password any more");
}

Outcome get_settings(ServiceLink& service, const std::vector<std::string>& names) {
  for (const std::string& name : names)
    if (!is_setting(name))
      return failure(Exit::Invalid, "there is no setting \"" + shown_text(name) + "\"");
  Outcome outcome;
  const auto report = ask_status(service, &outcome);
  if (!report) return outcome;
  if (!report->stored) return failure(Exit::Failed, "the service does not tell what is stored");
  outcome.text = setting_lines(*report->stored, names);
  outcome.json["stored"] = setting_values(*report->stored, names);
  outcome.json["running"] = nullptr;
  if (report->running) outcome.json["running"] = setting_values(*report->running, names);
  return outcome;
}

Outcome set_settings(ServiceLink& service, const std::vector<std::string>& assignments,
                     Apply apply) {
  host_service::Settings settings;
  const std::string error = assign_settings(assignments, &settings);
  if (!error.empty()) return failure(Exit::Invalid, error + "; nothing was stored");
  Outcome outcome;
  const auto report = ask_status(service, &outcome);
  if (!report) return outcome;
  if (!report->stored && !assigns_all(assignments))
    return failure(Exit::Failed,
                   "the service does not tell what is stored, so that one setting can't be changed "
                   "alone: name all of them; nothing was stored");
  if (apply == Apply::Now && report->worker && report->worker->connected)
    return refuse_while_connected(NOTHING_STORED);
  if (report->stored) settings = *report->stored;
  assign_settings(assignments, &settings);
  outcome.text = setting_lines(settings);
  outcome.json["stored"] = setting_values(settings);
  return store(service, {Verb::SetSettings, host_service::encode_settings(settings)}, apply,
               std::move(outcome));
}

Outcome set_relays(ServiceLink& service, const lund_relay_config& relays, Apply apply) {
  Outcome outcome;
  if (apply == Apply::Now) {
    const auto report = ask_status(service, &outcome);
    if (!report) return outcome;
    if (report->worker && report->worker->connected) return refuse_while_connected(NOTHING_STORED);
  }
  Request request{Verb::SetRelays, {}};
  request.payload.resize(host_service::PAYLOAD_MAX);
  const std::size_t size = lund_relay_config_save(
      &relays, reinterpret_cast<char*>(request.payload.data()), request.payload.size());
  request.payload.resize(size);
  outcome.text = relay_lines(relays);
  outcome.json["relays"] = nlohmann::ordered_json::array();
  for (int i = 0; i < relays.count; ++i)
    outcome.json["relays"].push_back(relay_name(relays.servers[i]));
  return store(service, request, apply, std::move(outcome));
}

Outcome restart_worker(ServiceLink& service, bool force) {
  if (!force) {
    Outcome refusal;
    const auto report = ask_status(service, &refusal);
    if (!report) return refusal;
    if (report->worker && report->worker->connected)
      return refuse_while_connected("--force restarts the worker all the same");
  }
  return restart(service);
}

Outcome stop_service(ServiceLink& service) {
  return carry_out(service, {Verb::Stop, {}}, "The worker and the service stop");
}

}  // namespace ctl
