#include "apps/service/platform.h"

#include <signal.h>

#include <atomic>
#include <filesystem>

#include "control/ipc_transport.h"
#include "control/security.h"

namespace service_platform {

namespace {

std::atomic<WakeEvent*> stop_wakes{nullptr};
std::atomic<bool> stop_signalled{false};
static_assert(std::atomic<WakeEvent*>::is_always_lock_free);  // for the handler

// Setting the event is one write to a descriptor, which a handler may do (signal-safety(7)).
void on_stop_signal(int) {
  stop_signalled = true;
  if (WakeEvent* wake = stop_wakes) wake->set();
}

void handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, nullptr);
}

}  // namespace

Ready prepare(std::string* error) {
  if (!host_service::system_process(host_service::Process::current(), nullptr)) {
    *error = "it must run as root: it rules who may see and use this computer's screens";
    return Ready::NotTheSystem;
  }
  const std::filesystem::path place =
      std::filesystem::path(host_service::SERVICE_PIPE).parent_path();
  if (host_service::create_private_directory(place)) return Ready::Yes;
  *error = place.string() +
           " can't be made, or others than root can reach it (it must be root's, "
           "mode 0700)";
  return Ready::NoPlace;
}

void watch_for_stop(WakeEvent& wake) {
  stop_wakes = &wake;
  handle(SIGTERM, on_stop_signal);
  handle(SIGINT, on_stop_signal);
  handle(SIGPIPE, SIG_IGN);  // whoever read the log may go
}

std::string secure_attention() {
  return "this system does not have one";
}

bool stop_asked() {
  return stop_signalled;
}

}  // namespace service_platform
