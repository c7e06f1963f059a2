#include "control/firewall.h"

#include <unistd.h>

#include <iterator>
#include <sstream>

#include "connection/clock.h"
#include "control/linux/firewall_programs.h"
#include "control/sysinfo.h"

namespace {

constexpr std::uint32_t CHANGE_MS = 15'000;
constexpr std::uint32_t LOOK_MS = 5'000;

using Programs = std::vector<std::unique_ptr<FirewallProgram>>;

Programs installed_programs(const FirewallSystem& system, std::uint32_t budget_ms) {
  Programs programs;
  for (auto make : {make_ufw, make_firewalld}) {
    auto program = make(system, budget_ms);
    if (program->is_installed()) programs.push_back(std::move(program));
  }
  return programs;
}

std::string names(const Programs& programs) {
  std::string text;
  for (const auto& program : programs)
    text += (text.empty() ? "" : " and ") + std::string(program->name());
  return text;
}

const char* const NONE_INSTALLED = "neither ufw nor firewalld is installed";

std::string none_active(const Programs& programs) {
  return programs.empty() ? NONE_INSTALLED
                          : names(programs) + (programs.size() == 1 ? " is" : " are") +
                                " installed but not active";
}

// For a POSIX shell.
std::string shell_word(const std::string& text) {
  constexpr const char* PLAIN =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@%,";
  if (!text.empty() && text.find_first_not_of(PLAIN) == std::string::npos) return text;
  std::string word = "'";
  for (const char character : text) word += character == '\'' ? "'\\''" : std::string(1, character);
  return word + "'";
}

std::string needs_administrator(const FirewallSystem& system, const std::string& arguments) {
  return "this needs root's rights: sudo " + shell_word(system.self.string()) + " firewall" +
         arguments;
}

std::string port_option(std::uint16_t port) {
  return " --port " + std::to_string(port);
}

using Step = std::function<bool(FirewallProgram& program, std::string* text)>;

// With each of them; the first failure ends it.
bool with_each(const Programs& programs, const Step& step, std::string* text) {
  text->clear();
  for (const auto& program : programs) {
    std::string line;
    const bool done = step(*program, &line);
    *text = done ? *text + (text->empty() ? "" : "\n") + line : line;
    if (!done) return false;
  }
  return true;
}

void keep_active(Programs* programs) {
  std::erase_if(*programs, [](const auto& program) { return !program->is_active(); });
}

}  // namespace

// ---- One program

FirewallProgram::FirewallProgram(const FirewallSystem& system, std::uint32_t budget_ms)
    : system_(system), deadline_us_(lund_now_us() + std::uint64_t{budget_ms} * 1'000) {}

ProgramEnd FirewallProgram::run(const std::vector<std::string>& arguments) const {
  const std::uint64_t now_us = lund_now_us();
  const std::uint64_t left_us = deadline_us_ > now_us ? deadline_us_ - now_us : 0;
  return system_.run(arguments, static_cast<std::uint32_t>(left_us / 1'000));
}

bool FirewallProgram::require(const std::vector<std::string>& arguments, std::string* text) const {
  const ProgramEnd end = run(arguments);
  if (!end.succeeded()) *text = failure_of(arguments, end);
  return end.succeeded();
}

std::string failure_of(const std::vector<std::string>& arguments, const ProgramEnd& end) {
  std::string command;
  for (const std::string& argument : arguments) command += (command.empty() ? "" : " ") + argument;
  switch (end.how) {
    case ProgramEnd::How::NotFound:
      return command + ": there is no such program";
    case ProgramEnd::How::Failed:
      return command + ": could not be started";
    case ProgramEnd::How::TimedOut:
      return command + ": came to no end in time";
    case ProgramEnd::How::Signalled:
      return command + ": was killed";
    case ProgramEnd::How::Exited:
      break;
  }
  const std::vector<std::string> lines = lines_of(end.output);
  return command + ": " + (lines.empty() ? "exit status " + std::to_string(end.status) : lines[0]);
}

std::vector<std::string> lines_of(std::string_view text) {
  std::vector<std::string> lines;
  std::istringstream stream{std::string(text)};
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> words_of(std::string_view line) {
  std::istringstream stream{std::string(line)};
  return {std::istream_iterator<std::string>(stream), {}};
}

// ---- All of them

bool add_rule(const FirewallSystem& system, std::uint16_t port, std::string* text) {
  Programs programs = installed_programs(system, CHANGE_MS);
  const std::string inactive = none_active(programs);
  keep_active(&programs);
  if (programs.empty()) {
    *text = inactive + ": there is nothing that a rule could be added to";
    return false;
  }
  if (!system.administrator) {
    *text = needs_administrator(system, " on" + port_option(port));
    return false;
  }
  if (!with_each(
          programs,
          [port](FirewallProgram& program, std::string* line) { return program.add(port, line); },
          text))
    return false;
  *text +=
      "\nThe rule is bound to the port and not to this program: whichever program has the "
      "port can be reached";
  return true;
}

bool remove_rule(const FirewallSystem& system, std::string* text) {
  Programs programs = installed_programs(system, CHANGE_MS);
  const std::string inactive = none_active(programs);
  std::erase_if(programs, [](const auto& program) {
    return !program->keeps_rules_while_inactive() && !program->is_active();
  });
  if (programs.empty()) {
    *text = inactive + ": no rule is in force";
    return true;
  }
  if (!system.administrator) {
    *text = needs_administrator(system, " off");
    return false;
  }
  return with_each(
      programs, [](FirewallProgram& program, std::string* line) { return program.remove(line); },
      text);
}

FirewallStatus rule_status(const FirewallSystem& system, std::uint16_t port) {
  using State = FirewallStatus::State;
  Programs programs = installed_programs(system, LOOK_MS);
  const std::string inactive = none_active(programs);
  keep_active(&programs);
  if (programs.empty()) return {State::None, inactive};
  // The worst of them decides: a datagram must pass them all.
  FirewallStatus worst{State::None, ""};
  for (const auto& program : programs) {
    FirewallStatus status = program->status(port);
    if (status.state > worst.state) worst = std::move(status);
  }
  if (worst.state == State::Unknown && !system.administrator)
    worst.text = names(programs) + " is active, and whether it lets clients in at UDP port " +
                 std::to_string(port) + " can't be told without root's rights: sudo " +
                 shell_word(system.self.string()) + " firewall" + port_option(port);
  return worst;
}

// ---- This computer's

FirewallSystem native_firewall_system() {
  FirewallSystem system;
  system.is_installed = [](const std::string& program) { return !find_program(program).empty(); };
  system.run = run_to_end;
  system.administrator = geteuid() == 0;
  system.ufw_configuration = "/etc/ufw/ufw.conf";
  system.self = exe_path();
  return system;
}

bool add_firewall_rule(std::uint16_t port, std::string* text) {
  return add_rule(native_firewall_system(), port, text);
}

bool remove_firewall_rule(std::string* text) {
  return remove_rule(native_firewall_system(), text);
}

FirewallStatus firewall_status(std::uint16_t port) {
  return rule_status(native_firewall_system(), port);
}
