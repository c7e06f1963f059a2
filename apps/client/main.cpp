// lunderhaze-client: discovers hosts, pairs with them, shows their screens in windows, and streams
// from them without one.
#include <CLI/CLI.hpp>

#include <cstdio>

#include "apps/client/commands.h"
#include "apps/client/view/keys.h"
#include "apps/terminal/path_option.h"
#include "apps/terminal/requests.h"
#include "apps/terminal/utf8_console.h"
#include "apps/version.h"
#include "control/keystore.h"
#include "control/log.h"

using namespace client_app;

namespace {

std::atomic<bool> stop_requested{false};

using Command = int (*)(const Arguments& args);
struct Subcommand {
  CLI::App* app;
  Command run;
};

const std::map<std::string, std::uint32_t> PATH_MODES = {{"all", LUND_PATHS_ALL},
                                                         {"direct", LUND_PATHS_DIRECT},
                                                         {"relay", LUND_PATHS_RELAY},
                                                         {"lan", LUND_PATHS_NO_SERVERS}};

// What pair and connect have in common.
void add_reaching(CLI::App& command, Arguments& args) {
  command.add_option("--host", args.host, "Name, key code, or address with :port if not 9876")
      ->required();
  command
      .add_option("--relay", args.relays,
                  "Link of a relay server, remembered once it has served; - reads links from "
                  "standard input, which hides them from other users of this computer")
      ->allow_extra_args(false);
  add_path_option(command, "--relay-file", args.relay_file, "File with such links, one a line");
  command
      .add_option("--path", args.path_mode,
                  "all; direct: servers only help to get through; relay: through servers alone; "
                  "lan: no servers")
      ->transform(CLI::CheckedTransformer(PATH_MODES).description("{all,direct,relay,lan}"))
      ->type_name("MODE")
      ->default_str("all");
}

void add_pair(CLI::App& pair, Arguments& args) {
  add_reaching(pair, args);
  auto* pin = pair.add_option("--pin", args.pin, "The six digits that the host shows");
  auto* password = pair.add_option("--password", args.password,
                                   "The host's password; - reads it from standard input");
  pair.add_option("--code", args.code, "The host's key code, to be sure that it is the right one")
      ->check([](const std::string& text) {
        std::uint8_t code[5];
        return lund_key_code_parse(code, text.c_str()) == 0 ? "" : "not a key code";
      });
  pin->excludes(password);
  auto* back = pair.add_flag("--back", args.back,
                             "Let that computer connect to this one too, once it has accepted");
  pair.add_option("--back-port", args.back_port, "UDP port of this computer's own host")
      ->needs(back)
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  pair.callback([&args] {
    if (args.pin.empty() && args.password.empty()) throw CLI::RequiredError("--pin or --password");
  });
}

// Takes its values one by one as they come, so that those of several options keep their order.
CLI::Option* add_in_order(CLI::App& command, const std::string& name, const std::string& help,
                          const std::function<std::string(const std::string&)>& take) {
  return command
      .add_option_function<std::string>(
          name,
          [name, take](const std::string& value) {
            const std::string error = take(value);
            if (!error.empty()) throw CLI::ValidationError(name, error);
          },
          help)
      ->trigger_on_parse();
}

void add_sharing(CLI::App& connect, Arguments& args) {
  add_path_option(connect, "--audio-out", args.audio_out, "Record the host's sound as a WAV file");
  add_path_option(connect, "--clipboard-set", args.clipboard_set,
                  "Give the host's clipboard this file, text or a PNG picture; - reads "
                  "standard input");
  add_path_option(connect, "--clipboard-get", args.clipboard_get,
                  "Write what the host's clipboard sent last; - writes it to standard output, "
                  "and everything else to standard error");
  add_in_order(connect, "--type", "Type this text with the keys of a US keyboard",
               [&args](const std::string& text) {
                 std::string error;
                 auto strokes = key_strokes(text, &error);
                 if (strokes) args.actions.emplace_back(std::move(*strokes));
                 return error;
               });
  add_in_order(connect, "--click", "Click at this pixel of the stream; both may come repeatedly",
               [&args](const std::string& text) -> std::string {
                 const auto click = parse_click(text);
                 if (!click) return text + " is not X,Y";
                 args.actions.emplace_back(*click);
                 return {};
               })
      ->type_name("X,Y");
}

// What connect and view wish of a stream.
void add_wishes(CLI::App& command, Arguments& args) {
  command.add_option("--width", args.width, "Widest picture wanted")->check(CLI::Range(0, 65535));
  command.add_option("--height", args.height, "Highest picture wanted")
      ->check(CLI::Range(0, 65535));
  command.add_option("--fps", args.fps, "Pictures a second wanted")->check(CLI::Range(0, 240));
  command.add_option("--bitrate-kbps", args.bitrate_kbps, "Bit rate wanted");
  command.add_option("--fec", args.fec, "Parity wanted, percent")->check(CLI::Range(0, 200));
  command.add_option("--codec", args.codec, "hevc or h264")->check(CLI::IsMember({"hevc", "h264"}));
  command.add_flag("--virtual", args.virtual_display,
                   "On a virtual display of that width, height and fps, where the host has one");
}

void add_connect(CLI::App& connect, Arguments& args) {
  add_reaching(connect, args);
  connect.add_option("--seconds", args.seconds, "How long; 0: until Ctrl+C")->capture_default_str();
  add_path_option(connect, "--out", args.out,
                  "Directory for the stream, the last picture, report.json");
  connect.add_flag("--reconnect", args.reconnect, "Come back after the host has fallen silent");
  connect.add_option("--drop", args.drop_percent, "Percent of datagrams to lose on purpose")
      ->check(CLI::Range(0.0, 100.0));
  connect.add_option("--seed", args.seed, "Seed of that loss")->capture_default_str();
  auto* screen = connect.add_option("--screen", args.screen, "0 to 3")->check(CLI::Range(0, 3));
  connect.add_option("--screens", args.screens, "So many at once, from 0 on")
      ->check(CLI::Range(1, SCREENS_MAX))
      ->excludes(screen);
  add_wishes(connect, args);
  add_sharing(connect, args);
}

void add_view(CLI::App& view, Arguments& args) {
  add_reaching(view, args);
  ViewArguments& wanted = args.view;
  view.add_option("--screens", wanted.screens, "How many of the host's, a window each")
      ->check(CLI::Range(1, SCREENS_MAX))
      ->capture_default_str();
  view.add_flag("--full-screen", wanted.full_screen, "Start in full screen");
  view.add_flag("--relative", wanted.relative, "Start with the mouse captured, for games and 3D");
  view.add_flag("--no-grab", wanted.no_grab, "Leave Alt+Tab and the like to this desktop");
  view.add_flag("--no-sound", wanted.no_sound, "Without the host's sound");
  view.add_flag("--no-clipboard", wanted.no_clipboard, "Share no clipboard");
  view.add_option("--release-key", wanted.release_key,
                  "The key that is the viewer's own: " + release_key_names())
      ->check([](const std::string& name) {
        return release_key_by_name(name) ? "" : "not one of " + release_key_names();
      })
      ->capture_default_str();
  add_wishes(view, args);
  view.add_option("--seconds", wanted.seconds, "How long; 0: until it is closed")
      ->capture_default_str();
  add_path_option(view, "--snapshot", wanted.snapshot, "PNG of what the window shows at the end");
  add_path_option(view, "--report", wanted.report, "JSON of what was measured");
}

void add_relay(CLI::App& relay, Arguments& args, std::vector<Subcommand>& commands) {
  relay.require_subcommand(1);
  commands.push_back(
      {relay.add_subcommand("list", "The relay servers that are remembered"), run_relay_list});
  CLI::App* add = relay.add_subcommand("add", "Remember a relay server");
  add->add_option("link", args.relay, "Its link; - reads it from standard input")->required();
  commands.push_back({add, run_relay_add});
  CLI::App* remove = relay.add_subcommand("remove", "Forget a relay server");
  remove->add_option("server", args.relay, "Its number or name as list shows them")->required();
  commands.push_back({remove, run_relay_remove});
  CLI::App* check = relay.add_subcommand("check", "Does a relay server answer?");
  check->add_option("link", args.relay, "Its link, or -; without one: all that are remembered");
  commands.push_back({check, run_relay_check});
}

int run_program(int argc, char** argv) {
  Arguments args;
  args.stop = &stop_requested;
  CLI::App app{"Finds, pairs with and receives the screen of a Lunderhaze host."};
  app.set_version_flag("--version", LUND_VERSION_TEXT);
  app.require_subcommand(1);
  add_path_option(app, "--store", args.store,
                  "Directory of this client's own identity, paired hosts and relay servers");
  app.add_flag("--verbose", args.verbose, "Show what the connection layer does");

  std::vector<Subcommand> commands;
  CLI::App* discover = app.add_subcommand(
      "discover", "List the hosts on this network, and learn where those known are");
  discover->add_option("--port", args.port, "UDP port to ask")->capture_default_str();
  discover->add_option("--wait-ms", args.wait_ms, "How long to listen")->capture_default_str();
  commands.push_back({discover, run_discover});
  commands.push_back({app.add_subcommand("hosts", "List the hosts that are known"), run_hosts});
  CLI::App* forget = app.add_subcommand("forget", "Forget a host");
  forget->add_option("host", args.host, "Its name, key code or address")->required();
  commands.push_back({forget, run_forget});
  CLI::App* pair = app.add_subcommand("pair", "Become a device that the host knows");
  add_pair(*pair, args);
  commands.push_back({pair, run_pair});
  CLI::App* view =
      app.add_subcommand("view", "A host's screens in windows, with mouse, keyboard and sound");
  add_view(*view, args);
  commands.push_back({view, run_view});
  CLI::App* connect = app.add_subcommand("connect", "Receive a screen, record and measure it");
  add_connect(*connect, args);
  commands.push_back({connect, run_connect});
  add_relay(*app.add_subcommand("relay", "The relay servers that hosts are reached through"), args,
            commands);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
  }
  std::string error;
  if (!keystore::configureHostStore(keystore::User, &error)) return fail(EXIT_LOCAL, error);
  if (args.verbose) log_open(true);
  watch_requests({[] { stop_requested = true; }});
  for (const Subcommand& command : commands)
    if (command.app->parsed()) return command.run(args);
  return EXIT_USAGE;  // not reached: one is required
}

}  // namespace

int main(int argc, char** argv) {
  const Utf8Console console;
  try {
    return run_program(argc, argv);
  } catch (const std::exception& error) {  // out of memory, or a disk that throws
    return fail(EXIT_LOCAL, error.what());
  }
}
