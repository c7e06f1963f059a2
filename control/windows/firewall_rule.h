// The rule of Windows Defender Firewall that lets clients in at this program: made and removed by
// netsh in an elevated command, judged by what the firewall's own interface tells of all rules.
// Pure but for what the record holds; blocks where that blocks.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "control/firewall.h"

// How an elevated command ended.
struct ElevatedEnd {
  enum class How {
    Exited,
    NotStarted,  // `code` is the system's error; ERROR_CANCELLED when the user said no
    NoProcess,   // started, and no handle of it was given
    TimedOut,    // and goes on
  };
  How how = How::NotStarted;
  unsigned long code = 0;  // of one that exited: its exit code

  bool succeeded() const { return how == How::Exited && code == 0; }
};

// One rule for incoming UDP datagrams to this program, on whatever port.
struct ProgramRule {
  std::string name;
  bool allows = false;      // blocks otherwise, and a rule that blocks goes before one that allows
  bool on_private = false;  // holds on private networks
};

struct FirewallView {
  bool on_private_network = true;    // of the networks of now, one at least isn't public
  bool enabled = true;               // on private networks
  bool blocks_all_incoming = false;  // there, whatever the rules
  bool has_own_rule = false;         // one by this product's name, for whatever program
  std::vector<ProgramRule> rules;    // those that are switched on
};

struct FirewallSystem {
  // cmd.exe, elevated and without a window, with these parameters.
  std::function<ElevatedEnd(const std::wstring& parameters, std::uint32_t timeout_ms)> run_elevated;
  // Empty on failure, with the interface's result in `code`.
  std::function<std::optional<FirewallView>(long* code)> look;
  std::filesystem::path self;
};

bool add_rule(const FirewallSystem& system, std::string* text);
bool remove_rule(const FirewallSystem& system, std::string* text);
FirewallStatus rule_status(const FirewallSystem& system);

FirewallSystem native_firewall_system();
