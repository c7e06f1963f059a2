// lunderhaze: the host started by hand, in the user's own scope, and its sub-commands.
#include <cstdio>
#include <string>
#include <vector>

#include "apps/lunderhaze/commands.h"
#include "apps/lunderhaze/run.h"
#include "apps/terminal/utf8_console.h"
#include "apps/version.h"
#include "control/log.h"

namespace {

// The option list has no notion of what is this program's alone.
bool take_out(std::vector<std::string>* args, const std::string& option) {
  return std::erase(*args, option) != 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Utf8Console console;
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 1 && args[0] == "--version") {
    std::printf("%s\n", LUND_VERSION_TEXT);
    return EXIT_OK;
  }
  if (!args.empty() && is_command(args[0])) return run_command(args);
  RunOptions options;
  options.accept_pair_back = take_out(&args, "--accept-pair-back");
  std::string error;
  if (!parse_host_options(args, &options.host, &error)) {
    std::fprintf(stderr, "lunderhaze: %s\n%s%s", error.c_str(), HOST_USAGE, COMMANDS_USAGE);
    return EXIT_USAGE;
  }
  if (options.host.help) {
    std::printf("%s%s", HOST_USAGE, COMMANDS_USAGE);
    return EXIT_OK;
  }
  const ExitStatus status = run_host(options);
  log_close();
  return status;
}
