#include <algorithm>
#include <cwchar>

#include "control/sysinfo.h"
#include "control/windows/firewall_rule.h"
#include "control/windows/handles.h"

namespace {

constexpr std::uint32_t CHANGE_MS = 15'000;
constexpr const char* RULE = "Lunderhaze";
constexpr std::size_t PARAMETERS_MAX = 2048;  // characters, the end among them

// Deleting ahead of adding keeps one rule. It is bound to the program, and never to the public
// profile.
constexpr const wchar_t* ADD_PARAMETERS =
    L"/c netsh advfirewall firewall delete rule name=\"Lunderhaze\" >nul 2>&1 & netsh advfirewall "
    L"firewall add rule name=\"Lunderhaze\" dir=in action=allow program=\"%ls\" protocol=UDP "
    L"profile=private,domain";
constexpr const wchar_t* REMOVE_PARAMETERS =
    L"/c netsh advfirewall firewall delete rule name=\"Lunderhaze\"";

// Between quotes cmd.exe leaves everything in a path alone but %NAME%.
std::wstring add_parameters(const std::filesystem::path& program) {
  wchar_t parameters[PARAMETERS_MAX];
  if (program.empty() || program.native().find(L'%') != std::wstring::npos) return {};
  const int count = std::swprintf(parameters, PARAMETERS_MAX, ADD_PARAMETERS, program.c_str());
  // What doesn't fit is a negative count by the standard, and its whole length elsewhere.
  const bool whole = count >= 0 && static_cast<std::size_t>(count) < PARAMETERS_MAX;
  return whole ? std::wstring(parameters, static_cast<std::size_t>(count)) : std::wstring();
}

std::string failure_of(const ElevatedEnd& end) {
  switch (end.how) {
    case ElevatedEnd::How::NotStarted:
      return end.code == ERROR_CANCELLED
                 ? "the administrator's consent that this needs was refused (error 1223)"
                 : "the command could not be started with an administrator's rights (error " +
                       std::to_string(end.code) + ")";
    case ElevatedEnd::How::NoProcess:
      return "the command was started, and how it ended can't be told";
    case ElevatedEnd::How::TimedOut:
      return "netsh came to no end in time";
    case ElevatedEnd::How::Exited:
      break;
  }
  return "netsh: exit code " + std::to_string(end.code);
}

std::string quoted(const std::string& name) {
  return "\"" + name + "\"";
}

const ProgramRule* find_rule(const FirewallView& view, bool allows) {
  const auto found = std::ranges::find_if(view.rules, [allows](const ProgramRule& rule) {
    return rule.on_private && rule.allows == allows;
  });
  return found == view.rules.end() ? nullptr : &*found;
}

// Why a rule that allows may stand and let nobody in; empty when nothing is in its way.
std::string obstacle(const FirewallView& view) {
  if (view.blocks_all_incoming)
    return "the firewall is set to block all incoming connections, whatever the rules";
  if (const ProgramRule* rule = find_rule(view, false))
    return "the rule " + quoted(rule->name) +
           " blocks this program, and goes before any that lets clients in";
  return {};
}

// The rule holds on private networks alone, and this computer is in none now.
std::string public_network_note(const FirewallView& view) {
  return view.on_private_network ? ""
                                 : ". This computer's network is public now, where it doesn't hold";
}

}  // namespace

bool add_rule(const FirewallSystem& system, std::string* text) {
  const std::wstring parameters = add_parameters(system.self);
  if (parameters.empty()) {
    *text = "a firewall rule can't hold this program's path";
    return false;
  }
  const ElevatedEnd end = system.run_elevated(parameters, CHANGE_MS);
  if (!end.succeeded()) {
    *text = failure_of(end);
    return false;
  }
  *text = "The rule " + quoted(RULE) +
          " lets clients on private and domain networks in at this program, whatever its port";
  long code = 0;
  if (const std::optional<FirewallView> view = system.look(&code)) {
    const std::string blocked = obstacle(*view);
    *text += blocked.empty() ? public_network_note(*view) : "\nBut " + blocked;
  }
  return true;
}

bool remove_rule(const FirewallSystem& system, std::string* text) {
  const ElevatedEnd end = system.run_elevated(REMOVE_PARAMETERS, CHANGE_MS);
  const bool removed = end.succeeded();
  // netsh fails as well when there is none to remove.
  long code = 0;
  const std::optional<FirewallView> view = system.look(&code);
  const bool absent = end.how == ElevatedEnd::How::Exited && view && !view->has_own_rule;
  *text = removed  ? "The rule " + quoted(RULE) + " was removed"
          : absent ? "There was no rule " + quoted(RULE)
                   : failure_of(end);
  return removed || absent;
}

FirewallStatus rule_status(const FirewallSystem& system) {
  using State = FirewallStatus::State;
  long code = 0;
  const std::optional<FirewallView> view = system.look(&code);
  if (!view) {
    char text[96];
    std::snprintf(text, sizeof(text), "Windows' firewall could not be asked (0x%08lx)",
                  static_cast<unsigned long>(code));
    return {State::Unknown, text};
  }
  if (!view->enabled) return {State::None, "Windows' firewall is off on private networks"};
  if (const std::string blocked = obstacle(*view); !blocked.empty())
    return {State::Closed, blocked};
  const ProgramRule* const rule = find_rule(*view, true);
  if (rule == nullptr)
    return {State::Closed, "no rule of Windows' firewall lets clients in at this program"};
  return {State::Open, "the rule " + quoted(rule->name) +
                           " lets clients on private networks in at this program" +
                           public_network_note(*view)};
}

bool add_firewall_rule(std::uint16_t, std::string* text) {
  return add_rule(native_firewall_system(), text);
}

bool remove_firewall_rule(std::string* text) {
  return remove_rule(native_firewall_system(), text);
}

FirewallStatus firewall_status(std::uint16_t) {
  return rule_status(native_firewall_system());
}
