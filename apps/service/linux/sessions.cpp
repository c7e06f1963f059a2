// Where the session to serve comes from: the options, or else logind.
#include <pwd.h>

#include <array>

#include "apps/service/linux/login_sessions.h"
#include "apps/service/platform.h"
#include "control/ipc_transport.h"

namespace service_platform {

namespace {

class ChosenSession final : public SessionSource {
 public:
  explicit ChosenSession(GraphicalSession session) : session_(std::move(session)) {}
  SessionView active() override { return {session_, ""}; }

 private:
  const GraphicalSession session_;
};

// What each option sets in the worker's environment.
constexpr std::pair<const char*, const char*> VARIABLES[] = {{"--display", "DISPLAY"},
                                                             {"--xauthority", "XAUTHORITY"},
                                                             {"--runtime-dir", "XDG_RUNTIME_DIR"},
                                                             {"--pulse-server", "PULSE_SERVER"}};

std::unique_ptr<SessionSource> chosen_session(const SessionChoice& choice, std::string* error) {
  GraphicalSession session;
  for (const auto& [option, variable] : VARIABLES) {
    const auto given = choice.find(option);
    if (given != choice.end()) session.environment[variable] = given->second;
  }
  const std::string display = session.environment["DISPLAY"];
  session.number = local_session_number(display);
  if (session.number == 0) {
    *error = display.empty() ? "--xauthority, --runtime-dir and --pulse-server need --display"
                             : "--display must be one of this computer's, such as :0";
    return nullptr;
  }
  session.name = "display " + display;
  return std::make_unique<ChosenSession>(std::move(session));
}

std::optional<Environment> find_environment(const LoginSession& session) {
  std::array<char, 4'096> buffer;
  passwd entry{};
  passwd* found = nullptr;
  getpwuid_r(session.uid, &entry, buffer.data(), buffer.size(), &found);
  SessionPlaces places;
  if (found != nullptr) places.home = found->pw_dir;
  places.runtime = "/run/user/" + std::to_string(session.uid);
  places.copies = std::filesystem::path(host_service::SERVICE_PIPE).parent_path();
  return worker_environment(session, session_environments(session), places);
}

}  // namespace

const std::vector<SessionOption>& session_options() {
  static const std::vector<SessionOption> options = {
      {"--display",
       "X display to serve, such as :0, instead of asking logind for the active session"},
      {"--xauthority", "File with that display's cookie"},
      {"--runtime-dir", "XDG_RUNTIME_DIR of the display's user"},
      {"--pulse-server",
       "Address of the display's sound server, such as unix:/run/user/1000/pulse/native"},
  };
  return options;
}

std::unique_ptr<SessionSource> session_source(const SessionChoice& choice, WakeEvent& wake,
                                              std::string* error) {
  if (!choice.empty()) return chosen_session(choice, error);
  std::unique_ptr<LoginSeat> seat = open_login_seat(error);
  if (!seat) return nullptr;
  return std::make_unique<LoginSessions>(std::move(seat), find_environment, wake);
}

}  // namespace service_platform
