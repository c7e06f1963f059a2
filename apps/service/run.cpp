#include "apps/service/run.h"

#include <cstdio>

#include "apps/service/admin_server.h"
#include "apps/service/service_commands.h"
#include "apps/service/supervisor.h"
#include "apps/service/worker_link.h"
#include "apps/version.h"
#include "control/log.h"
#include "control/private_file.h"
#include "control/sysinfo.h"

using namespace service_platform;

namespace {

constexpr std::size_t SETTINGS_LIMIT_BYTES = 256;  // a record has 16

ServiceExit fail(ServiceExit status, const std::string& text) {
  std::fprintf(stderr, "lunderhaze-service: %s\n", text.c_str());
  std::fflush(stderr);
  tell_manager_line(text, Line::Failure);
  return status;
}

void say(const std::string& line) {
  hsay("%s", line.c_str());
  tell_manager_line(line, Line::News);
}

std::string worker_program(const ServiceOptions& options) {
  return options.worker.empty() ? (exe_path().parent_path() / WORKER_PROGRAM).string()
                                : options.worker;
}

SupervisorTimes times_of(const ServiceOptions& options) {
  SupervisorTimes times;
  if (options.backoff_ms == 0) return times;
  const std::uint32_t doublings = times.backoff.longest_ms / times.backoff.first_ms;
  times.backoff.first_ms = options.backoff_ms;
  times.backoff.longest_ms = options.backoff_ms * doublings;
  return times;
}

// What the next worker starts with. Read anew each time, since the worker writes it; and read only,
// since what a damaged store means is the worker's to decide.
std::optional<host_service::Settings> stored_settings() {
  const std::filesystem::path file = store_platform::machine_store_directory() / "settings";
  std::string bytes;
  switch (read_private_file(file, SETTINGS_LIMIT_BYTES, &bytes)) {
    case store_platform::Read::Missing:
      return host_service::Settings{};
    case store_platform::Read::Failed:
      return std::nullopt;
    case store_platform::Read::Ok:
      break;
  }
  host_service::Settings settings;
  const bool valid = host_service::protected_path(file, true) &&
                     host_service::decode_settings({bytes.begin(), bytes.end()}, &settings);
  return valid ? std::optional(settings) : std::nullopt;
}

// Tells the service manager what the service does, when that has changed.
class ManagerStatus {
 public:
  void tell(const WorkerSupervisor& supervisor) {
    if (!stopping_ && supervisor.stop_wanted()) {
      tell_manager_stopping();
      stopping_ = true;
    }
    const std::string doing = supervisor.state().doing;
    if (doing != told_) tell_manager_status(doing);
    told_ = doing;
  }

 private:
  bool stopping_ = false;
  std::string told_;
};

}  // namespace

ServiceExit run_service(const ServiceOptions& options) {
  std::string error;
  switch (prepare(&error)) {
    case Ready::Yes:
      break;
    case Ready::NotTheSystem:
    case Ready::NoPlace:
      return fail(EXIT_NOT_SYSTEM, error);
  }
  // Never destroyed: a signal may come until the process ends.
  static WakeEvent& wake = *new WakeEvent(WakeEvent::Reset::Auto);
  const std::unique_ptr<SessionSource> sessions = session_source(options.session, wake, &error);
  if (!sessions) return fail(EXIT_USAGE, error);
  watch_for_stop(wake);

  const std::string program = worker_program(options);
  WorkerSupervisor supervisor(
      {*sessions,
       [&program](const std::vector<std::string>& arguments, const GraphicalSession& session,
                  std::string* why) {
         return start_worker(program, arguments, session, wake, why);
       },
       [](const std::string& channel) { return PipeLink::make(channel, say, wake); },
       lund_random_bytes, say, wake, host_service::Process::current().id()},
      times_of(options));
  AdminServer admin(
      host_service::SERVICE_PIPE,
      [&supervisor](const host_service::Request& request) {
        return carry_out(request, supervisor, stored_settings);
      },
      say);
  if (!admin.start())
    return fail(EXIT_SECOND, "another lunderhaze-service runs on this machine, or " +
                                 std::string(host_service::SERVICE_PIPE) + " can't be made");

  log_open(true, {});
  say(LUND_VERSION_TEXT " service running");
  tell_manager_ready();
  ManagerStatus manager;
  while (!supervisor.done()) {
    if (stop_asked()) supervisor.stop();
    const std::uint32_t next_ms = supervisor.step();
    manager.tell(supervisor);
    if (!supervisor.done()) wake.wait(next_ms);
  }
  admin.stop();
  say("service stopped");
  return EXIT_OK;
}
