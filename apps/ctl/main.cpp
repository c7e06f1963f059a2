// lunderhaze-ctl: an administrator's commands to the service, and through it to the worker.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <functional>

#include "apps/ctl/commands.h"
#include "apps/ctl/settings_text.h"
#include "apps/ctl/words.h"
#include "apps/terminal/utf8_console.h"
#include "apps/version.h"
#include "control/host_commands.h"

using namespace ctl;

namespace {

class PipeLink final : public ServiceLink {
 public:
  host_service::Result ask(const host_service::Request& request) override {
    return host_service::transact(host_service::SERVICE_PIPE, request, nullptr);
  }
};

const char* const FOOTER =
    "Exit status: 0 done, 1 wrong command line, 2 a name or value was refused, 3 denied: not an\n"
    "administrator, or the service is not to be trusted, 4 the service or the worker is not\n"
    "running, 5 the host's store failed, 6 refused or broken off, 7 no such device.";

using Command = std::function<Outcome(ServiceLink& service)>;

struct Arguments {
  bool json = false;
  Command command;  // of the sub-command that was named
  std::uint32_t seconds = PAIRING_SECONDS;
  bool standard_input = false;
  std::vector<std::string> argument_password;  // taken only to be refused without an echo
  std::string device;
  std::vector<std::string> relays;
  bool no_relays = false;
  std::vector<std::string> names;
  std::vector<std::string> assignments;
  bool restart = false;
  bool force = false;

  Apply apply() const { return restart ? Apply::Now : Apply::AtNextStart; }
};

CLI::App* add(CLI::App& app, Arguments& args, const std::string& name, const std::string& help,
              const Command& command) {
  CLI::App* added = app.add_subcommand(name, help);
  added->fallthrough();
  added->callback([&args, command] { args.command = command; });
  return added;
}

void add_restart(CLI::App& command, Arguments& args) {
  command.add_flag("--restart", args.restart,
                   "Restart the worker, which applies it; refused while a client is connected");
}

Outcome run_set_password(ServiceLink& service, const Arguments& args) {
  if (!args.argument_password.empty())
    return failure(
        Exit::Usage,
        "a password is never an argument, which other users can see: choose another one");
  const auto passwords = args.standard_input ? passwords_of(stdin) : passwords_of_terminal();
  if (!passwords)
    return failure(Exit::Usage, "standard input is no terminal: --stdin takes a line from it");
  return set_password(service, *passwords);
}

Outcome run_set_relays(ServiceLink& service, const Arguments& args) {
  lund_relay_config relays;
  std::string error;
  if (!read_relays(args.relays, &relays, &error)) return failure(Exit::Invalid, error);
  if (relays.count == 0 && !args.no_relays)
    return failure(Exit::Invalid, "there is no link: --none removes all relay servers");
  return set_relays(service, relays, args.apply());
}

void add_pairing_commands(CLI::App& app, Arguments& args) {
  CLI::App* pair =
      add(app, args, "pair", "Open pairing, and show the PIN that a device needs for it",
          [&args](ServiceLink& service) { return open_pairing(service, args.seconds); });
  pair->add_option("--seconds", args.seconds, "How long the PIN holds, 30 to 300")
      ->capture_default_str();
  add(app, args, "close-pairing", "Close pairing before its time", close_pairing);
  CLI::App* password = add(
      app, args, "set-password",
      "Set the password by which devices may pair at any time; asked for twice, without an echo",
      [&args](ServiceLink& service) { return run_set_password(service, args); });
  password->add_flag("--stdin", args.standard_input, "Take a line of standard input for it");
  password->add_option("password", args.argument_password)->group("");
  add(app, args, "clear-password", "Remove that password", clear_password);
}

void add_device_commands(CLI::App& app, Arguments& args) {
  add(app, args, "devices", "List the paired devices: key code, key, name", list_devices);
  CLI::App* remove =
      add(app, args, "remove-device", "A device may not connect any more; its sessions end at once",
          [&args](ServiceLink& service) { return remove_device(service, args.device); });
  remove->add_option("device", args.device, "Its key code, name, or whole key")
      ->required()
      ->type_name("CODE");
}

void add_stored_commands(CLI::App& app, Arguments& args) {
  CLI::App* relays =
      add(app, args, "set-relays", "Store the relay servers, in place of those stored before",
          [&args](ServiceLink& service) { return run_set_relays(service, args); });
  auto* links = relays
                    ->add_option("links", args.relays,
                                 "Links, files with a link a line, or - for standard input; other "
                                 "users of this computer can see links on the command line")
                    ->type_name("FILE|LINK");
  auto* none = relays->add_flag("--none", args.no_relays, "Store that there are none");
  links->excludes(none);
  add_restart(*relays, args);

  CLI::App* get = add(app, args, "get", "Show stored settings",
                      [&args](ServiceLink& service) { return get_settings(service, args.names); });
  get->add_option("names", args.names, "Which; without any, all")->type_name("NAME");
  get->footer("Settings:\n" + settings_help());
  CLI::App* set = add(app, args, "set", "Change stored settings; all of those named, or none",
                      [&args](ServiceLink& service) {
                        return set_settings(service, args.assignments, args.apply());
                      });
  set->add_option("settings", args.assignments, "What to change")
      ->required()
      ->type_name("NAME=VALUE");
  set->footer("Settings:\n" + settings_help());
  add_restart(*set, args);
}

void add_running_commands(CLI::App& app, Arguments& args) {
  CLI::App* restart =
      add(app, args, "restart", "Restart the worker; refused while a client is connected",
          [&args](ServiceLink& service) { return restart_worker(service, args.force); });
  restart->add_flag("--force", args.force, "Also then; the client's session ends");
  add(app, args, "stop", "Stop the worker and the service", stop_service);
}

int report(const Outcome& outcome, bool json) {
  std::fputs(json ? json_text(outcome).c_str() : outcome.text.c_str(), stdout);
  std::fflush(stdout);
  if (!outcome.error.empty()) std::fprintf(stderr, "lunderhaze-ctl: %s\n", outcome.error.c_str());
  return static_cast<int>(outcome.exit);
}

// The service's pipe is closed to everyone else, and nobody is to type a password in vain.
bool administrator() {
  return host_service::elevated_admin_process(host_service::Process::current());
}

int run_program(int argc, char** argv) {
  Arguments args;
  CLI::App app{"Rules this computer's Lunderhaze service: pairing, devices, settings, restarts."};
  app.set_version_flag("--version", LUND_VERSION_TEXT);
  app.require_subcommand(1);
  app.add_flag("--json", args.json, "Answer with a JSON object; also behind each command");
  app.footer(FOOTER);
  add(app, args, "status", "Show the service, the worker, its screens and the paired devices",
      show_status);
  add_pairing_commands(app, args);
  add_device_commands(app, args);
  add_stored_commands(app, args);
  add_running_commands(app, args);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return static_cast<int>(app.exit(error) == 0 ? Exit::Done : Exit::Usage);
  }
  if (!administrator())
    return report(
        failure(Exit::Denied,
                std::string("only an administrator may rule the service: ") + AS_ADMINISTRATOR),
        args.json);
  PipeLink service;
  return report(args.command(service), args.json);
}

}  // namespace

int main(int argc, char** argv) {
  const Utf8Console console;
  try {
    return run_program(argc, argv);
  } catch (const std::exception& error) {  // out of memory
    return report(failure(Exit::Failed, error.what()), false);
  }
}
