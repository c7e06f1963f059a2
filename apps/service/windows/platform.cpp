#include "apps/service/platform.h"

#include "apps/service/windows/event_log.h"
#include "apps/service/windows/secure_attention.h"
#include "apps/service/windows/service_control.h"
#include "apps/terminal/requests.h"
#include "control/security.h"

namespace service_platform {

// The pipes' names are protected by the pipes' own descriptors: there is no place to prepare.
Ready prepare(std::string* error) {
  SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (host_service::system_process(host_service::Process::current(), nullptr)) return Ready::Yes;
  *error =
      "it must run as LocalSystem, as it rules who may see and use this computer's screens: "
      "\"lunderhaze-service install\", then \"net start Lunderhaze\"";
  return Ready::NotTheSystem;
}

std::string secure_attention() {
  return send_secure_attention(SYSTEM_ATTENTION);
}

void watch_for_stop(WakeEvent& wake) {
  service_control().wake(wake);
  if (!service_control().managed())
    watch_requests({.end = [] { service_control().ask_to_stop(); }});
}

bool stop_asked() {
  return service_control().stop_asked();
}

void tell_manager_ready() {
  service_control().ready();
}
void tell_manager_stopping() {
  service_control().stopping();
}
// The SCM takes no words, but sees that something goes on.
void tell_manager_status(const std::string&) {
  service_control().progress();
}
void tell_manager_line(const std::string& line, Line kind) {
  if (service_control().managed())
    write_event(line, kind == Line::News ? EventKind::News : EventKind::Failure);
}

}  // namespace service_platform
