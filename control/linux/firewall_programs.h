// The firewalls that Linux systems come with, as seen through the programs that administer them:
// ufw and firewalld. Both bind a rule to a port and not to a program: whichever program has the
// port is reached. One thread; firewall.h says what the operations promise.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "control/firewall.h"
#include "control/linux/run_to_end.h"

// What they take from the system, so that tests can stand in.
struct FirewallSystem {
  std::function<bool(const std::string& program)> is_installed;
  std::function<ProgramEnd(const std::vector<std::string>& arguments, std::uint32_t timeout_ms)>
      run;
  bool administrator = false;
  std::filesystem::path ufw_configuration;  // which everybody may read, unlike what ufw answers
  std::filesystem::path self;               // this program, for a person to run with sudo
};
FirewallSystem native_firewall_system();

bool add_rule(const FirewallSystem& system, std::uint16_t port, std::string* text);
bool remove_rule(const FirewallSystem& system, std::string* text);
FirewallStatus rule_status(const FirewallSystem& system, std::uint16_t port);

// One of them, during one operation, whose steps share a budget of time.
class FirewallProgram {
 public:
  FirewallProgram(const FirewallSystem& system, std::uint32_t budget_ms);
  virtual ~FirewallProgram() = default;
  FirewallProgram(const FirewallProgram&) = delete;
  FirewallProgram& operator=(const FirewallProgram&) = delete;

  virtual const char* name() const = 0;  // of the firewall
  virtual bool is_installed() const = 0;
  virtual bool is_active() = 0;
  virtual bool keeps_rules_while_inactive() const = 0;  // so that they can be removed even then

  // As an administrator. `text`: what holds now, or why not.
  virtual bool add(std::uint16_t port, std::string* text) = 0;
  virtual bool remove(std::string* text) = 0;
  virtual FirewallStatus status(std::uint16_t port) = 0;

 protected:
  ProgramEnd run(const std::vector<std::string>& arguments) const;
  // False with "PROGRAM ARGUMENTS: what happened" unless it succeeds.
  bool require(const std::vector<std::string>& arguments, std::string* text) const;

  const FirewallSystem& system_;

 private:
  const std::uint64_t deadline_us_;
};

std::unique_ptr<FirewallProgram> make_ufw(const FirewallSystem& system, std::uint32_t budget_ms);
std::unique_ptr<FirewallProgram> make_firewalld(const FirewallSystem& system,
                                                std::uint32_t budget_ms);

std::string failure_of(const std::vector<std::string>& arguments, const ProgramEnd& end);
std::vector<std::string> lines_of(std::string_view text);
std::vector<std::string> words_of(std::string_view line);
