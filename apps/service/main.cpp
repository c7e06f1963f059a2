// lunderhaze-service: runs as the system, keeps a worker alive in the active graphical session, and
// lets administrators rule it by lunderhaze-ctl.
#include <CLI/CLI.hpp>

#include <cstdio>

#include "apps/service/run.h"
#include "apps/version.h"

namespace {

int run_program(int argc, char** argv) {
  ServiceOptions options;
  CLI::App app{
      "Shares this computer's active graphical session: starts lunderhaze-worker for it, keeps it\n"
      "running, and takes orders of lunderhaze-ctl. Runs in the foreground as root until Ctrl+C."};
  app.set_version_flag("--version", LUND_VERSION_TEXT);
  for (const service_platform::SessionOption& option : service_platform::session_options()) {
    app.add_option_function<std::string>(
        option.name,
        [&options, name = option.name](const std::string& value) { options.session[name] = value; },
        option.help);
  }
  app.add_option("--worker", options.worker, "The worker's program; otherwise beside this one");
  // For tests that kill the worker again and again: the usual second would double to a minute.
  app.add_option("--backoff-ms", options.backoff_ms, "")->check(CLI::Range(1, 60'000))->group("");
  app.footer(
      "Exit status: 0 stopped, 1 wrong arguments or no session to be found, 2 not root or\n"
      "/run/lunderhaze is open to others, 3 another service runs, 4 another failure here.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
  }
  return run_service(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run_program(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lunderhaze-service: %s\n", error.what());
    return EXIT_LOCAL;
  }
}
