#include "worker/worker.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "control/keystore.h"
#include "control/log.h"
#include "control/settings.h"
#include "host/server.h"
#include "worker/worker_channel.h"

namespace host_app {

using host_service::Pipe;

namespace {

constexpr std::size_t CHANNEL_DIGITS = 32;

// All of `text`, in base 10 as strtoul reads it, and not 0.
bool parse_process_id(const std::string& text, std::uint32_t* id) {
  char* end = nullptr;
  const unsigned long value = std::strtoul(text.c_str(), &end, 10);
  *id = static_cast<std::uint32_t>(
      std::min<unsigned long>(value, std::numeric_limits<std::uint32_t>::max()));
  return *id != 0 && *end == '\0';
}

bool is_channel_name(const std::string& name) {
  const std::string prefix = host_service::WORKER_PIPE_PREFIX;
  return name.starts_with(prefix) && name.size() == prefix.size() + CHANNEL_DIGITS &&
         name.find_first_not_of("0123456789abcdef", prefix.size()) == name.npos;
}

// A worker whose peer is proven: from here on every way to the end is the stop sequence.
class Worker {
 public:
  Worker(WorkerSystem& system, const Platform& platform, WakeEvent& stop_event, Pipe commands,
         Pipe events, std::uint32_t supervisor)
      : system_(system),
        platform_(platform),
        stop_event_(stop_event),
        channel_(std::in_place, std::move(commands), std::move(events), stop_event, supervisor) {}

  ExitCode run() {
    ExitCode code = ExitCode::Failed;
    try {
      start();
      code = watch();
    } catch (...) {
      hlog("Host worker stopped: startup or machine persistence failure");
      stop_event_.set();
    }
    stop();
    return code;
  }

 private:
  void start() {
    if (!keystore::configureHostStore(keystore::Machine, nullptr))
      throw std::runtime_error("machine store invalid");
    log_open(false, keystore::hostStoreDirectory());
    if (!keystore::hostStoreHealthy(nullptr)) throw std::runtime_error("machine log unavailable");
    HostOptions options = load_settings();
    options.machine_mode = true;
    const std::vector<DisplayInfo> displays = platform_.list_displays();
    server_ = std::make_unique<HostServer>(
        options, displays.empty() ? DisplayInfo{} : displays.front(), platform_);
    InputInjector& injector = server_->injector();
    injector.set_input_desktop_tracking(true);
    // On whichever thread plays input.
    injector.set_sas_handler([this] {
      if (server_ && server_->status().active) channel_->sas_requested = true;
    });
    if (!server_->start(nullptr)) throw std::runtime_error("worker startup failed");
    channel_->start(*server_);
  }

  ExitCode watch() {
    DisplayWake display_wake(system_);
    while (keystore::hostStoreHealthy(nullptr)) {
      if (stop_event_.wait(POLL_MS)) break;
      display_wake.follow(server_->status().active);
    }
    // A command that found the store unhealthy has set the event before this thread could see it.
    return keystore::hostStoreHealthy(nullptr) ? ExitCode::Stopped : ExitCode::StoreFailed;
  }

  void stop() {
    system_.keep_display_awake(false);
    stop_event_.set();
    channel_->join();  // no command arrives while the host goes down
    if (server_) {
      server_->injector().set_sas_handler(nullptr);
      server_->shutdown();
      server_->injector().release_all();  // no key stays pressed on the desktop
    }
    log_close();
    server_.reset();
    channel_.reset();
  }

  WorkerSystem& system_;
  const Platform& platform_;
  WakeEvent& stop_event_;
  std::optional<WorkerChannel> channel_;
  std::unique_ptr<HostServer> server_;
};

// With the lock held.
ExitCode run_alone(const WorkerArguments& arguments, WorkerSystem& system,
                   const Platform& platform) {
  WakeEvent stop_event(WakeEvent::Reset::Manual);
  system.stop_on_signals(&stop_event);
  Pipe commands = system.open_pipe(arguments.channel, &stop_event);
  Pipe events = commands
                    ? system.open_pipe(arguments.channel + host_service::EVENTS_SUFFIX, &stop_event)
                    : Pipe();
  ExitCode code = ExitCode::NoPeer;
  if (commands && events && system.pipe_server(commands, arguments.supervisor) &&
      system.pipe_server(events, arguments.supervisor))
    code = Worker(system, platform, stop_event, std::move(commands), std::move(events),
                  arguments.supervisor)
               .run();
  system.stop_on_signals(nullptr);
  return code;
}

}  // namespace

bool parse_worker_arguments(const std::vector<std::string>& arguments, WorkerArguments* out) {
  if (arguments.size() != 4 || arguments[0] != "--supervisor" || arguments[2] != "--channel" ||
      !parse_process_id(arguments[1], &out->supervisor) || !is_channel_name(arguments[3]))
    return false;
  out->channel = arguments[3];
  return true;
}

void DisplayWake::follow(bool active) {
  if (active != asked_ && !system_.keep_display_awake(active))
    hlog("Host worker display wake request unavailable");
  asked_ = active;
}

ExitCode run_worker(const std::vector<std::string>& arguments, WorkerSystem& system,
                    const Platform& platform) {
  system.restrict_library_directories();
  WorkerArguments parsed;
  if (!parse_worker_arguments(arguments, &parsed) || !system.in_system_session())
    return ExitCode::Refused;
  switch (system.take_lock()) {
    case WorkerSystem::Lock::Unprotected:
      return ExitCode::Unprotected;
    case WorkerSystem::Lock::NotHeld:
      return ExitCode::NotAlone;
    case WorkerSystem::Lock::Held:
      break;
  }
  const ExitCode code = run_alone(parsed, system, platform);
  system.release_lock();
  return code;
}

}  // namespace host_app
