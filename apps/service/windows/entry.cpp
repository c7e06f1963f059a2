#include "apps/service/entry.h"

#include <cstdio>
#include <cwchar>
#include <filesystem>

#include "apps/service/windows/event_log.h"
#include "apps/service/windows/managed_run.h"
#include "apps/service/windows/registration.h"
#include "apps/service/windows/service_names.h"
#include "control/security.h"
#include "control/sysinfo.h"
#include "control/text.h"
#include "control/windows/command_line.h"

namespace service_platform {

namespace {

// What the service manager starts. Told by a word: a process can't ask in a bounded time whether it
// was started by the manager.
constexpr char SERVE[] = "service";
constexpr DWORD STOP_MS = 30'000;  // what the service itself has, and some

ServiceExit fail(ServiceExit status, const std::string& text) {
  std::fprintf(stderr, "lunderhaze-service: %s\n", text.c_str());
  return status;
}

ServiceExit tell(const Registered& registered, const char* next) {
  if (!registered.done)
    return fail(registered.error == ERROR_ACCESS_DENIED ? EXIT_NOT_SYSTEM : EXIT_LOCAL,
                registered.text);
  std::printf("%s%s\n", registered.text.c_str(), next);
  return EXIT_OK;
}

// A library that was moved here has the access list of where it was.
bool only_administrators_change_libraries_in(const std::filesystem::path& directory) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    if (_wcsicmp(entry->path().extension().c_str(), L".dll") == 0 &&
        !host_service::protected_path(entry->path(), false))
      return false;
  }
  return !error;
}

// What the system runs must be out of everybody else's reach: the program, and what it loads from
// beside it.
bool only_administrators_change(const std::filesystem::path& program) {
  const std::filesystem::path directory = program.parent_path();
  return host_service::protected_path(program, false) &&
         host_service::protected_path(directory, false) &&
         host_service::protected_ancestors(program) &&
         only_administrators_change_libraries_in(directory);
}

ServiceExit install(const ServiceOptions& options) {
  // What the run would be refused for is refused here.
  WakeEvent unused(WakeEvent::Reset::Auto);
  std::string error;
  if (!session_source(options.session, unused, &error)) return fail(EXIT_USAGE, error);

  const std::filesystem::path program = exe_path();
  const std::filesystem::path worker = options.worker.empty()
                                           ? program.parent_path() / WORKER_PROGRAM
                                           : std::filesystem::absolute(utf8_path(options.worker));
  for (const std::filesystem::path& file : {program, worker}) {
    std::error_code ignored;
    if (!std::filesystem::exists(file, ignored))
      return fail(EXIT_LOCAL, file.string() + " is missing");
    if (!only_administrators_change(file))
      return fail(EXIT_NOT_SYSTEM, file.string() +
                                       ": others than administrators can change it or what lies "
                                       "beside it; put the programs into a directory such as "
                                       "C:\\Program Files\\Lunderhaze");
  }
  std::vector<std::string> words = {program.string(), SERVE};
  if (!options.worker.empty()) words.insert(words.end(), {"--worker", worker.string()});
  for (const auto& [name, value] : options.session) words.insert(words.end(), {name, value});
  const Registered registered = register_service({}, SERVICE_NAME, command_line_of(words));
  if (registered.done) {
    if (const LSTATUS status = register_event_source(); status != ERROR_SUCCESS)
      return fail(EXIT_LOCAL, registered.text + ", but its events have no source (error " +
                                  std::to_string(status) + ")");
  }
  return tell(registered, ", and starts with Windows; \"net start Lunderhaze\" starts it now");
}

ServiceExit uninstall(const ServiceOptions&) {
  const Registered removed = unregister_service({}, SERVICE_NAME, STOP_MS);
  if (removed.done) {
    if (const LSTATUS status = unregister_event_source(); status != ERROR_SUCCESS)
      return fail(EXIT_LOCAL, removed.text +
                                  ", but the source of its events is still there (error " +
                                  std::to_string(status) + ")");
  }
  return tell(removed, "");
}

ServiceExit serve(const ServiceOptions& options) {
  return static_cast<ServiceExit>(
      run_under_manager([&options] { return run_service(options); }, EXIT_LOCAL));
}

}  // namespace

const char* const DESCRIPTION =
    "Shares this computer's screens: starts lunderhaze-worker in the session at the console, "
    "keeps\n"
    "it running, and takes orders of lunderhaze-ctl. It is a service of Windows: \"install\" it as "
    "an\n"
    "administrator, with the options that it is to run with, and \"net start Lunderhaze\".";
const char* const EXIT_STATUSES =
    "Exit status: 0 stopped or done, 1 wrong arguments, 2 not LocalSystem, no administrator, or\n"
    "programs that others can change, 3 another service runs, 4 another failure here.";

const std::vector<Command>& commands() {
  static const std::vector<Command> own = {
      {"install", "Make it a service that starts with Windows, or change the one that is", install},
      {"uninstall", "Stop the service and remove it", uninstall},
      {SERVE, "Serve as the service that Windows starts", serve},
  };
  return own;
}

}  // namespace service_platform
