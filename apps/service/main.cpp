// lunderhaze-service: runs as the system, keeps a worker alive in the active graphical session, and
// lets administrators rule it by lunderhaze-ctl.
#include <CLI/CLI.hpp>

#include <cstdio>

#include "apps/service/entry.h"
#include "apps/terminal/utf8_console.h"
#include "apps/version.h"

namespace {

void take_options(CLI::App& app, ServiceOptions& options) {
  for (const service_platform::SessionOption& option : service_platform::session_options()) {
    app.add_option_function<std::string>(
        option.name,
        [&options, name = option.name](const std::string& value) { options.session[name] = value; },
        option.help);
  }
  app.add_option("--worker", options.worker, "The worker's program; otherwise beside this one");
  // For tests that kill the worker again and again: the usual second would double to a minute.
  app.add_option("--backoff-ms", options.backoff_ms, "")->check(CLI::Range(1, 60'000))->group("");
}

int run_program(int argc, char** argv) {
  ServiceOptions options;
  ServiceExit (*carry_out)(const ServiceOptions&) = run_service;
  CLI::App app{service_platform::DESCRIPTION};
  app.set_version_flag("--version", LUND_VERSION_TEXT);
  take_options(app, options);
  if (const auto& commands = service_platform::commands(); !commands.empty()) {
    for (const service_platform::Command& command : commands)
      app.add_subcommand(command.name, command.help)->fallthrough()->callback([&] {
        carry_out = command.carry_out;
      });
    app.add_subcommand("run", "Serve in the foreground, until Ctrl+C")->fallthrough();
    app.require_subcommand(1);
  }
  app.footer(service_platform::EXIT_STATUSES);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
  }
  return carry_out(options);
}

}  // namespace

int main(int argc, char** argv) {
  const Utf8Console console;
  try {
    return run_program(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "lunderhaze-service: %s\n", error.what());
    return EXIT_LOCAL;
  }
}
