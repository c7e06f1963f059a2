#include "apps/client/host_choice.h"

#include <algorithm>

namespace {

constexpr std::size_t DASH_AT = 4;

bool is_key_code(const std::string& text) {
  std::uint8_t code[5];
  if (lund_key_code_parse(code, text.c_str()) != 0) return false;
  const std::size_t dash = text.find('-');
  if (dash != std::string::npos) return dash == DASH_AT && text.rfind('-') == dash;
  return std::ranges::any_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

void add(HostLink& link, const lund_rv_endpoint& address) {
  lund_client_add_candidate(link.engine(), &address, 0);  // one that isn't set is refused
}

}  // namespace

HostChoice parse_host(const std::string& text) {
  HostChoice choice;
  choice.text = text;
  if (lund_addr_parse(&choice.address, text.c_str(), HOST_PORT) == 0)
    choice.kind = HostChoice::Kind::Address;
  else if (is_key_code(text))
    choice.kind = HostChoice::Kind::Code;
  return choice;
}

LanWanted wanted_for_pairing(const HostChoice& choice, const lund_host_entry* known,
                             std::uint32_t path_mode) {
  LanWanted wanted;
  if (path_mode == LUND_PATHS_RELAY) return wanted;
  wanted.port = HOST_PORT;
  if (known && known->lan_endpoint.port != 0) wanted.port = known->lan_endpoint.port;
  if (choice.kind == HostChoice::Kind::Code) wanted.by = LanWanted::By::Any;
  if (choice.kind == HostChoice::Kind::Name) {
    wanted.by = LanWanted::By::Name;
    wanted.name = choice.text;
  }
  return wanted;
}

LanWanted wanted_for_connecting(const lund_host_entry& host, std::uint32_t path_mode) {
  LanWanted wanted;
  wanted.port = host.lan_endpoint.port != 0 ? host.lan_endpoint.port : HOST_PORT;
  wanted.lan_id = host.lan_id;
  wanted.name = host.name;
  if (path_mode != LUND_PATHS_RELAY) wanted.by = LanWanted::By::LanId;
  return wanted;
}

std::string nobody_answered(const HostChoice& choice) {
  switch (choice.kind) {
    case HostChoice::Kind::Address:
      return "no host answered at " + choice.text;
    case HostChoice::Kind::Code:
      return "no host with the key code " + choice.text + " answered";
    case HostChoice::Kind::Name:
      break;
  }
  return "no host called \"" + choice.text + "\" answered";
}

void add_candidates(HostLink& link, const HostChoice& chosen, const lund_host_entry* host) {
  add(link, chosen.address);
  if (!host) return;
  add(link, host->lan_endpoint);
  add(link, host->wan_endpoint);
}
