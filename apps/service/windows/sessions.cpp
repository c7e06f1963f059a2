// Which terminal session is served: the one that the console (screen, keyboard and mouse) shows, or
// the one chosen. The user's name is not told: a session is the same one before and after its user
// signs in, and its worker stays.
#include <charconv>

#include "apps/service/platform.h"
#include "apps/service/windows/sessions.h"
#include "control/windows/handles.h"

namespace service_platform {

namespace {

constexpr char SESSION_OPTION[] = "--session";

// The SCM tells of each change by the event that it tells of the end with (watch_for_stop). Where
// none runs this, the supervisor's own turns find it.
class ConsoleSession final : public SessionSource {
 public:
  SessionView active() override { return console_view(WTSGetActiveConsoleSessionId()); }
};

class ChosenSession final : public SessionSource {
 public:
  explicit ChosenSession(std::uint32_t number) : number_(number) {}
  SessionView active() override {
    return {GraphicalSession{"session " + std::to_string(number_), number_, {}}, ""};
  }

 private:
  const std::uint32_t number_;
};

}  // namespace

SessionView console_view(std::uint32_t number) {
  if (number == NO_CONSOLE_SESSION || number == SERVICES_SESSION)
    return {std::nullopt, "no session is at the console"};
  return {GraphicalSession{"console session " + std::to_string(number), number, {}}, ""};
}

std::optional<std::uint32_t> session_number(const std::string& text) {
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size() || number == SERVICES_SESSION ||
      number == NO_CONSOLE_SESSION)
    return std::nullopt;
  return number;
}

const std::vector<SessionOption>& session_options() {
  static const std::vector<SessionOption> options = {
      {SESSION_OPTION,
       "Number of the session to serve (\"query session\" lists them), instead of the console's"},
  };
  return options;
}

std::unique_ptr<SessionSource> session_source(const SessionChoice& choice, WakeEvent&,
                                              std::string* error) {
  const auto chosen = choice.find(SESSION_OPTION);
  if (chosen == choice.end()) return std::make_unique<ConsoleSession>();
  if (const std::optional<std::uint32_t> number = session_number(chosen->second))
    return std::make_unique<ChosenSession>(*number);
  *error = "--session must be the number of a session with a desktop, 1 or more";
  return nullptr;
}

}  // namespace service_platform
