// The program's commands, on whatever service they are given. They print nothing; one that fails
// has changed nothing, except where its error says so.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "apps/ctl/outcome.h"
#include "apps/ctl/password.h"
#include "apps/ctl/service_link.h"
#include "control/relay_list.h"

namespace ctl {

// Exit::Unavailable with the whole report when the service runs without a worker.
Outcome show_status(ServiceLink& service);

Outcome open_pairing(ServiceLink& service, std::uint32_t seconds);
Outcome close_pairing(ServiceLink& service);
Outcome set_password(ServiceLink& service, PasswordSource& passwords);
Outcome clear_password(ServiceLink& service);

Outcome list_devices(ServiceLink& service);
// By key code, name, or whole key in hexadecimal digits; exactly one has to answer to it.
Outcome remove_device(ServiceLink& service, const std::string& selector);

// All the names or, without any, each setting.
Outcome get_settings(ServiceLink& service, const std::vector<std::string>& names);

enum class Apply {
  AtNextStart,
  Now,  // restarts the worker; refused beforehand while a client is connected
};
Outcome set_settings(ServiceLink& service, const std::vector<std::string>& assignments,
                     Apply apply);
Outcome set_relays(ServiceLink& service, const lund_relay_config& relays, Apply apply);

Outcome restart_worker(ServiceLink& service, bool force);
Outcome stop_service(ServiceLink& service);

// Relay servers of a command line: links, files with a link a line, and "-" for standard input.
// False with `error`, which shows no link.
bool read_relays(const std::vector<std::string>& sources, lund_relay_config* relays,
                 std::string* error);

}  // namespace ctl
