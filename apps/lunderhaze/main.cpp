// lunderhaze: the host started by hand, in the user's own scope. Runs until Ctrl+C.
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "apps/version.h"
#include "control/keystore.h"
#include "control/log.h"
#include "control/options.h"
#include "control/wake_event.h"
#include "host/server.h"

namespace {

// What the program returns; scripts rely on these.
enum ExitStatus : int {
  EXIT_OK = 0,
  EXIT_USAGE = 1,
  EXIT_NO_DISPLAY = 2,
  EXIT_STORE = 3,
  EXIT_START = 4,
};

WakeEvent stop_event(WakeEvent::Reset::Manual);
void request_stop(int) {
  stop_event.set();
}

int fail(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "lunderhaze: %s\n", text.c_str());
  hlog("%s", text.c_str());
  return status;
}

// A line for the person at the terminal, whether or not the log goes there too.
void tell(const HostOptions& options, const std::string& text) {
  if (options.console) {
    hsay("%s", text.c_str());
  } else {
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
  }
}

void tell_pairing(const HostOptions& options, HostServer& host) {
  const lund_pairing_status pairing = host.pairing_status();
  if (pairing.open)
    tell(options, "To pair a device: key code " + std::string(pairing.key_code) + ", PIN " +
                      std::string(pairing.pin));
}

void on_event(const HostOptions& options, HostServer& host, const lund_conn_event& event) {
  switch (event.type) {
    case LUND_EV_PIN_CHANGED:
      return tell_pairing(options, host);
    case LUND_EV_PAIRED:
      return tell(options, std::string("Paired with \"") + event.name + "\"");
    case LUND_EV_SESSION_UP:
      return tell(options, std::string("Connected: \"") + event.name + "\"");
    default:
      return;
  }
}

int list_the_displays() {
  for (const DisplayInfo& display : list_displays())
    std::printf("%s\n", describe_display(display).c_str());
  return EXIT_OK;
}

int run(const HostOptions& options) {
  std::string error;
  if (!keystore::configureHostStore(keystore::User, &error)) return fail(EXIT_STORE, error);
  log_open(options.console);
  const std::string obstacle = display_obstacle();
  if (!obstacle.empty()) return fail(EXIT_NO_DISPLAY, obstacle);
  if (options.list_displays) return list_the_displays();
  DisplayInfo display;
  if (!select_display(options.display, &display) && !options.display.empty())
    return fail(EXIT_NO_DISPLAY, "there is no display \"" + options.display +
                                     "\": --list-displays shows what there is");

  HostServer host(options, display, native_platform());
  host.on_event = [&](const lund_conn_event& event) { on_event(options, host, event); };
  if (!host.start(&error)) return fail(EXIT_START, error);
  if (!options.pin.empty() && !host.set_password(options.pin, HostServer::Keep::ThisRun))
    return fail(EXIT_START, "the password of --pin could not be set: out of memory?");
  std::signal(SIGINT, request_stop);
  std::signal(SIGTERM, request_stop);
  tell(options, "Listening on UDP port " + std::to_string(options.port) + ", key code " +
                    host.key_code() + ". Ctrl+C stops.");
  tell_pairing(options, host);
  while (!stop_event.wait(1000)) {
  }
  host.shutdown();
  tell(options, "Stopped.");
  return EXIT_OK;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 1 && args[0] == "--version") {
    std::printf("%s\n", LUND_VERSION_TEXT);
    return EXIT_OK;
  }
  HostOptions options;
  std::string error;
  if (!parse_host_options(args, &options, &error)) {
    std::fprintf(stderr, "lunderhaze: %s\n%s", error.c_str(), HOST_USAGE);
    return EXIT_USAGE;
  }
  if (options.help) {
    std::fputs(HOST_USAGE, stdout);
    return EXIT_OK;
  }
  const int status = run(options);
  log_close();
  return status;
}
