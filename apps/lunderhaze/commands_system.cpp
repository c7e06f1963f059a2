// The sub-commands that change this computer around the host: its start at login, its firewall.
#include <algorithm>
#include <string>

#include "apps/lunderhaze/commands_internal.h"
#include "apps/lunderhaze/run.h"
#include "control/autostart.h"
#include "control/firewall.h"
#include "control/host_commands.h"
#include "control/options.h"

bool take_port(Arguments* args, std::optional<std::uint16_t>* port) {
  const auto option = std::find(args->begin(), args->end(), "--port");
  if (option == args->end()) return true;
  if (option + 1 == args->end()) return false;
  const auto number = parse_number(option[1], 1, 65'535);
  if (!number) return false;
  *port = static_cast<std::uint16_t>(*number);
  args->erase(option, option + 2);
  return true;
}

ExitStatus autostart_command(const Arguments& args) {
  const std::optional<bool> on = args.size() == 2 ? parse_switch(args[1]) : std::nullopt;
  if (args.size() > 2 || (args.size() == 2 && !on))
    return wrong_usage("autostart takes on, off or nothing");
  std::string text;
  if (on && !set_autostart(*on, &text)) return fail(EXIT_SYSTEM, text);
  if (!text.empty()) say(text + "\n");
  return say(autostart_enabled() ? "The host starts when this user logs in\n"
                                 : "The host does not start by itself when this user logs in\n");
}

ExitStatus firewall_command(const Arguments& args) {
  Arguments rest(args.begin() + 1, args.end());
  std::optional<std::uint16_t> chosen;
  const bool good_port = take_port(&rest, &chosen);
  const std::string verb = rest.empty() ? "status" : rest[0];
  if (!good_port || rest.size() > 1 || (verb != "on" && verb != "off" && verb != "status"))
    return wrong_usage("firewall: on, off or nothing, and --port NUMBER (1 to 65535)");
  const std::uint16_t port = chosen.value_or(HostOptions().port);
  std::string text;
  if (verb == "status") {
    const FirewallStatus status = firewall_status(port);
    say(status.text + "\n");
    return status.state == FirewallStatus::State::Unknown ? EXIT_SYSTEM : EXIT_OK;
  }
  const bool done = verb == "on" ? add_firewall_rule(port, &text) : remove_firewall_rule(&text);
  return done ? say(text + "\n") : fail(EXIT_SYSTEM, text);
}
