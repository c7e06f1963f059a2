#include "control/firewall.h"

#include <gtest/gtest.h>

#include "control/windows/firewall_rule.h"
#include "control/windows/handles.h"

namespace {

using How = ElevatedEnd::How;
using State = FirewallStatus::State;

constexpr const char* ADDED =
    "The rule \"Lunderhaze\" lets clients on private and domain networks in at this program, "
    "whatever its port";

// Commands are kept, none is run; the firewall's view is the test's.
class Firewall : public testing::Test {
 protected:
  Firewall() {
    system_.self = L"C:\\Program Files\\Lunderhaze\\lunderhaze.exe";
    system_.run_elevated = [this](const std::wstring& parameters, std::uint32_t timeout_ms) {
      commands_.push_back(parameters);
      timeout_ms_ = timeout_ms;
      return end_;
    };
    system_.look = [this](long* code) {
      *code = code_;
      return code_ < 0 ? std::nullopt : std::optional(view_);
    };
  }

  bool add() { return add_rule(system_, &text_); }
  bool remove() { return remove_rule(system_, &text_); }
  FirewallStatus status() { return rule_status(system_); }
  void allow(const std::string& name) { view_.rules.push_back({name, true, true}); }
  void block(const std::string& name) { view_.rules.push_back({name, false, true}); }

  FirewallSystem system_;
  ElevatedEnd end_{How::Exited, 0};
  FirewallView view_;
  long code_ = 0;
  std::vector<std::wstring> commands_;
  std::uint32_t timeout_ms_ = 0;
  std::string text_ = "untouched";
};

// ---- The commands

TEST_F(Firewall, AddingDeletesFirstAndBindsTheRuleToTheProgramAndNeverToThePublicProfile) {
  EXPECT_TRUE(add());
  EXPECT_EQ(text_, ADDED);
  ASSERT_EQ(commands_.size(), 1u);
  EXPECT_EQ(commands_[0],
            L"/c netsh advfirewall firewall delete rule name=\"Lunderhaze\" >nul 2>&1 & netsh "
            L"advfirewall firewall add rule name=\"Lunderhaze\" dir=in action=allow "
            L"program=\"C:\\Program Files\\Lunderhaze\\lunderhaze.exe\" protocol=UDP "
            L"profile=private,domain");
  EXPECT_EQ(timeout_ms_, 15'000u);
}

TEST_F(Firewall, AnyCharacterOfAPathReachesTheCommand) {
  system_.self = L"C:\\\u00fc & (\u6f22)^\\x.exe";
  EXPECT_TRUE(add());
  EXPECT_NE(commands_.at(0).find(L"program=\"C:\\\u00fc & (\u6f22)^\\x.exe\" "),
            std::wstring::npos);
}

TEST_F(Firewall, APathThatTheCommandWouldChangeOrCannotHoldIsRefused) {
  for (const std::wstring& path :
       {std::wstring(), std::wstring(L"C:\\%PATH%\\x.exe"), L"C:\\" + std::wstring(2048, L'x')}) {
    system_.self = path;
    EXPECT_FALSE(add());
    EXPECT_EQ(text_, "a firewall rule can't hold this program's path");
  }
  EXPECT_TRUE(commands_.empty());
}

TEST_F(Firewall, RemovingDeletesTheRuleByItsName) {
  EXPECT_TRUE(remove());
  EXPECT_EQ(text_, "The rule \"Lunderhaze\" was removed");
  ASSERT_EQ(commands_.size(), 1u);
  EXPECT_EQ(commands_[0], L"/c netsh advfirewall firewall delete rule name=\"Lunderhaze\"");
}

TEST_F(Firewall, EveryOtherEndOfTheCommandIsAFailureInWords) {
  const std::pair<ElevatedEnd, const char*> cases[] = {
      {{How::NotStarted, ERROR_CANCELLED},
       "the administrator's consent that this needs was refused (error 1223)"},
      {{How::NotStarted, ERROR_ACCESS_DENIED},
       "the command could not be started with an administrator's rights (error 5)"},
      {{How::NoProcess, 0}, "the command was started, and how it ended can't be told"},
      {{How::TimedOut, 0}, "netsh came to no end in time"},
      {{How::Exited, 1}, "netsh: exit code 1"},
  };
  view_.has_own_rule = true;
  for (const auto& [end, said] : cases) {
    end_ = end;
    EXPECT_FALSE(add());
    EXPECT_EQ(text_, said);
    EXPECT_FALSE(remove());
    EXPECT_EQ(text_, said);
  }
}

TEST_F(Firewall, RemovingWhatIsNotThereIsASuccess) {
  end_ = {How::Exited, 1};
  EXPECT_TRUE(remove());
  EXPECT_EQ(text_, "There was no rule \"Lunderhaze\"");
  end_ = {How::NotStarted, ERROR_CANCELLED};
  EXPECT_FALSE(remove());
}

TEST_F(Firewall, WhatNetshSaysStandsWhereTheFirewallCannotBeAsked) {
  code_ = E_NOTIMPL;
  EXPECT_TRUE(add());
  EXPECT_EQ(text_, ADDED);
  end_ = {How::Exited, 1};
  EXPECT_FALSE(remove());
  EXPECT_EQ(text_, "netsh: exit code 1");
}

TEST_F(Firewall, ARuleThatStandsAndHelpsNobodyIsSaid) {
  block("lunderhaze.exe");
  EXPECT_TRUE(add());
  EXPECT_EQ(text_, std::string(ADDED) +
                       "\nBut the rule \"lunderhaze.exe\" blocks this program, and goes before "
                       "any that lets clients in");
}

// ---- Whether clients get in

TEST_F(Firewall, IsOpenWithARuleForThisProgram) {
  allow("Lunderhaze");
  EXPECT_EQ(status().state, State::Open);
  EXPECT_EQ(status().text,
            "the rule \"Lunderhaze\" lets clients on private networks in at this program");
}

TEST_F(Firewall, IsClosedWithoutOneAndWithOneForPublicNetworksAlone) {
  EXPECT_EQ(status().state, State::Closed);
  EXPECT_EQ(status().text, "no rule of Windows' firewall lets clients in at this program");
  view_.rules.push_back({"public", true, false});
  EXPECT_EQ(status().state, State::Closed);
}

TEST_F(Firewall, ARuleThatBlocksGoesBeforeOneThatAllows) {
  allow("Lunderhaze");
  block("lunderhaze.exe");
  EXPECT_EQ(status().state, State::Closed);
  EXPECT_EQ(status().text,
            "the rule \"lunderhaze.exe\" blocks this program, and goes before any that lets "
            "clients in");
}

TEST_F(Firewall, IsClosedWhereItBlocksAllThatComesIn) {
  allow("Lunderhaze");
  view_.blocks_all_incoming = true;
  EXPECT_EQ(status().state, State::Closed);
  EXPECT_EQ(status().text,
            "the firewall is set to block all incoming connections, whatever the rules");
}

TEST_F(Firewall, SwitchedOffItIsNoneThatHoldsClientsOff) {
  view_.enabled = false;
  EXPECT_EQ(status().state, State::None);
  EXPECT_EQ(status().text, "Windows' firewall is off on private networks");
}

TEST_F(Firewall, OnAPublicNetworkARuleIsSaidNotToHold) {
  allow("Lunderhaze");
  view_.on_private_network = false;
  EXPECT_EQ(status().text,
            "the rule \"Lunderhaze\" lets clients on private networks in at this program. This "
            "computer's network is public now, where it doesn't hold");
  EXPECT_TRUE(add());
  EXPECT_EQ(text_,
            std::string(ADDED) + ". This computer's network is public now, where it doesn't hold");
}

TEST_F(Firewall, ThatCannotBeAskedIsUnknownWithTheReason) {
  code_ = static_cast<long>(0x80004001);
  EXPECT_EQ(status().state, State::Unknown);
  EXPECT_EQ(status().text, "Windows' firewall could not be asked (0x80004001)");
}

// ---- This computer's

TEST(NativeFirewall, TheElevatedCommandIsWaitedForAndItsExitCodeTold) {
  const FirewallSystem system = native_firewall_system();
  const ElevatedEnd end = system.run_elevated(L"/c exit 3", 15'000);
  EXPECT_EQ(end.how, How::Exited);
  EXPECT_EQ(end.code, 3u);
}

TEST(NativeFirewall, TheElevatedCommandRunsInTheSystemsDirectory) {
  const FirewallSystem system = native_firewall_system();
  EXPECT_TRUE(
      system.run_elevated(L"/c if exist kernel32.dll (exit 0) else (exit 1)", 15'000).succeeded());
}

TEST(NativeFirewall, ACommandThatDoesNotEndIsLeftAtTheTimeOut) {
  const FirewallSystem system = native_firewall_system();
  EXPECT_EQ(system.run_elevated(L"/c ping -n 3 127.0.0.1 >nul", 0).how, How::TimedOut);
}

TEST(NativeFirewall, EitherTellsWhatItSeesOrWhyItDoesNot) {
  long code = 0;
  const FirewallSystem system = native_firewall_system();
  const bool seen = system.look(&code).has_value();
  EXPECT_EQ(seen, SUCCEEDED(code)) << std::hex << code;
  EXPECT_EQ(rule_status(system).state == State::Unknown, !seen);
}

}  // namespace
