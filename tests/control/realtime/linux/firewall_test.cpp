// The firewalls' programs are scripted: what each command answers, and which were given. How real
// programs are run is in run_to_end_test.cpp; the whole with programs on a PATH in
// tests/system/firewall_test.cpp.
#include <gmock/gmock.h>

#include <map>

#include "connection/clock.h"
#include "control/linux/firewall_programs.h"
#include "tests/support/temp_directory.h"

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

using State = FirewallStatus::State;
using How = ProgramEnd::How;

constexpr std::uint16_t PORT = 9876;

constexpr const char* BOUND_TO_THE_PORT =
    "\nThe rule is bound to the port and not to this program: whichever program has the port can "
    "be reached";

std::string join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

class Firewall : public testing::Test {
 protected:
  Firewall() {
    system_.is_installed = [this](const std::string& program) {
      return std::ranges::find(installed_, program) != installed_.end();
    };
    system_.run = [this](const std::vector<std::string>& arguments, std::uint32_t timeout_ms) {
      const std::string command = join(arguments);
      commands_.push_back(command);
      longest_ms_ = std::max(longest_ms_, timeout_ms);
      const auto found = answers_.find(command);
      return found == answers_.end() ? ProgramEnd{How::Exited, 0, ""} : found->second;
    };
    system_.administrator = true;
    system_.ufw_configuration = directory_ / "ufw.conf";
    system_.self = "/opt/lunder haze/lunderhaze";
  }

  void has_ufw(bool active) {
    installed_.push_back("ufw");
    answer("ufw status", active ? "Status: active\n" : "Status: inactive\n");
    write_file(system_.ufw_configuration,
               std::string("# a comment\nENABLED=") + (active ? "yes" : "no") + "\nLOGLEVEL=low\n");
  }
  void has_firewalld(bool active) {
    installed_.push_back("firewall-cmd");
    answer("firewall-cmd --state", active ? "running\n" : "not running\n", active ? 0 : 252);
  }
  void answer(const std::string& command, const std::string& output, int status = 0) {
    answers_[command] = {How::Exited, status, output};
  }
  bool add() { return add_rule(system_, PORT, &text_); }
  bool remove() { return remove_rule(system_, &text_); }
  FirewallStatus status() { return rule_status(system_, PORT); }

  TempDirectory directory_;
  FirewallSystem system_;
  std::vector<std::string> installed_;
  std::map<std::string, ProgramEnd> answers_;
  std::vector<std::string> commands_;
  std::uint32_t longest_ms_ = 0;
  std::string text_;
};

// ---- Whichever firewall

TEST_F(Firewall, WithoutOneNothingIsAddedAndNothingHasToBe) {
  EXPECT_FALSE(add());
  EXPECT_EQ(text_,
            "neither ufw nor firewalld is installed: there is nothing that a rule could be added "
            "to");
  EXPECT_TRUE(remove());
  EXPECT_EQ(text_, "neither ufw nor firewalld is installed: no rule is in force");
  EXPECT_EQ(status().state, State::None);
  EXPECT_EQ(status().text, "neither ufw nor firewalld is installed");
  EXPECT_THAT(commands_, IsEmpty());
}

TEST_F(Firewall, OneThatIsNotActiveIsNamed) {
  has_ufw(false);
  EXPECT_FALSE(add());
  EXPECT_EQ(text_,
            "ufw is installed but not active: there is nothing that a rule could be added to");
  EXPECT_EQ(status().text, "ufw is installed but not active");
  has_firewalld(false);
  EXPECT_FALSE(add());
  EXPECT_THAT(text_, StartsWith("ufw and firewalld are installed but not active: "));
  EXPECT_EQ(status().state, State::None);
}

TEST_F(Firewall, WithoutRootTheCommandForSudoIsSaidAndNothingIsChanged) {
  system_.administrator = false;
  has_ufw(true);
  EXPECT_FALSE(add());
  EXPECT_EQ(text_,
            "this needs root's rights: sudo '/opt/lunder haze/lunderhaze' firewall on --port "
            "9876");
  EXPECT_FALSE(remove());
  EXPECT_EQ(text_, "this needs root's rights: sudo '/opt/lunder haze/lunderhaze' firewall off");
  EXPECT_THAT(commands_, IsEmpty());
}

TEST_F(Firewall, TheWholeIsBoundedBy15Seconds) {
  has_ufw(true);
  has_firewalld(true);
  add();
  EXPECT_LE(longest_ms_, 15'000U);
  EXPECT_GT(longest_ms_, 10'000U);
  longest_ms_ = 0;
  status();
  EXPECT_LE(longest_ms_, 5'000U);
  EXPECT_GT(longest_ms_, 3'000U);
}

TEST_F(Firewall, AStepGetsWhatTheStepsBeforeItHaveLeft) {
  has_ufw(true);
  const auto answer_at_once = system_.run;
  std::vector<std::uint32_t> given_ms;
  system_.run = [&](const std::vector<std::string>& arguments, std::uint32_t timeout_ms) {
    given_ms.push_back(timeout_ms);
    const std::uint64_t until_us = lund_now_us() + 20'000;
    while (lund_now_us() < until_us) {
    }
    return answer_at_once(arguments, timeout_ms);
  };
  EXPECT_TRUE(add());
  ASSERT_GE(given_ms.size(), 5U);
  for (std::size_t i = 1; i < given_ms.size(); ++i) EXPECT_LE(given_ms[i] + 20, given_ms[i - 1]);
}

TEST_F(Firewall, AProgramThatHangsIsSaid) {
  has_ufw(true);
  answers_["ufw show added"] = {How::TimedOut, 0, ""};
  EXPECT_FALSE(add());
  EXPECT_EQ(text_, "ufw show added: came to no end in time");
}

TEST_F(Firewall, OfTwoActiveOnesBothGetTheRuleAndTheWorstDecides) {
  has_ufw(true);
  has_firewalld(true);
  answer("firewall-cmd --permanent --list-all-zones", "home\n  target: default\n");
  EXPECT_TRUE(add()) << text_;
  EXPECT_THAT(text_, HasSubstr("ufw lets"));
  EXPECT_THAT(text_, HasSubstr("firewalld lets"));
  answer("ufw status verbose", "Status: active\n9876/udp   ALLOW IN    Anywhere\n");
  answer("firewall-cmd --list-all-zones", "public (active)\n  target: default\n");
  EXPECT_EQ(status().state, State::Closed);
  answer("firewall-cmd --list-all-zones", "trusted (active)\n  target: ACCEPT\n");
  EXPECT_EQ(status().state, State::Open);
}

// ---- ufw

TEST_F(Firewall, UfwLetsThePrivateRangesInAtThePort) {
  has_ufw(true);
  EXPECT_TRUE(add()) << text_;
  EXPECT_THAT(
      commands_,
      ElementsAre("ufw status", "ufw show added",
                  "ufw allow proto udp from 10.0.0.0/8 to any port 9876 comment Lunderhaze",
                  "ufw allow proto udp from 172.16.0.0/12 to any port 9876 comment Lunderhaze",
                  "ufw allow proto udp from 192.168.0.0/16 to any port 9876 comment Lunderhaze"));
  EXPECT_EQ(text_,
            std::string("ufw lets 10.0.0.0/8, 172.16.0.0/12 and 192.168.0.0/16 in at UDP port "
                        "9876") +
                BOUND_TO_THE_PORT);
}

constexpr const char* ADDED =
    "Added user rules (see 'ufw status' for running firewall):\n"
    "ufw allow 22/tcp\n"
    "ufw allow from 10.0.0.0/8 to any port 5000 proto udp comment 'Lunderhaze'\n"
    "ufw allow 5001/udp comment 'Not Lunderhaze'\n"
    "ufw allow from 192.168.0.0/16 to any port 5000 proto udp comment 'Lunderhaze'\n";

TEST_F(Firewall, FormerRulesOfUfwsGoFirstWhateverTheirPortAndOthersStay) {
  has_ufw(true);
  answer("ufw show added", ADDED);
  EXPECT_TRUE(add()) << text_;
  ASSERT_EQ(commands_.size(), 7U);
  EXPECT_EQ(commands_[2], "ufw delete allow from 10.0.0.0/8 to any port 5000 proto udp");
  EXPECT_EQ(commands_[3], "ufw delete allow from 192.168.0.0/16 to any port 5000 proto udp");
  EXPECT_THAT(commands_[4], StartsWith("ufw allow proto udp from 10.0.0.0/8 "));
}

TEST_F(Firewall, UfwsRulesAreRemovedEvenWhileItIsNotActive) {
  has_ufw(false);
  answer("ufw show added", ADDED);
  EXPECT_TRUE(remove());
  EXPECT_EQ(text_, "ufw has no rule of this program's any more");
  EXPECT_THAT(
      commands_,
      ElementsAre("ufw show added", "ufw delete allow from 10.0.0.0/8 to any port 5000 proto udp",
                  "ufw delete allow from 192.168.0.0/16 to any port 5000 proto udp"));
}

TEST_F(Firewall, RemovingFromUfwWhatIsNotThereIsASuccess) {
  has_ufw(true);
  EXPECT_TRUE(remove());
  EXPECT_THAT(commands_, ElementsAre("ufw show added"));
}

TEST_F(Firewall, WhatUfwRefusesIsSaidInItsWords) {
  has_ufw(true);
  answer("ufw allow proto udp from 172.16.0.0/12 to any port 9876 comment Lunderhaze",
         "ERROR: problem running\nmore\n", 1);
  EXPECT_FALSE(add());
  EXPECT_EQ(text_,
            "ufw allow proto udp from 172.16.0.0/12 to any port 9876 comment Lunderhaze: ERROR: "
            "problem running");
}

TEST_F(Firewall, UfwIsOpenWithARuleForThePortWhoeverMadeIt) {
  has_ufw(true);
  const std::string head = "Status: active\nDefault: deny (incoming), allow (outgoing)\n\n";
  answer("ufw status verbose", head + "22/tcp      ALLOW IN    Anywhere\n");
  EXPECT_EQ(status().state, State::Closed);
  EXPECT_EQ(status().text, "ufw is active and has no rule that lets UDP port 9876 in");
  answer("ufw status verbose",
         head + "9876/udp    ALLOW IN    192.168.0.0/16             # Lunderhaze\n");
  EXPECT_EQ(status().state, State::Open);
  answer("ufw status verbose", head + "9876        ALLOW IN    Anywhere\n");
  EXPECT_EQ(status().state, State::Open);
  for (const char* line :
       {"9876/tcp    ALLOW IN    Anywhere\n", "9876/udp    DENY IN     Anywhere\n",
        "19876/udp   ALLOW IN    Anywhere\n"}) {
    answer("ufw status verbose", head + line);
    EXPECT_EQ(status().state, State::Closed) << line;
  }
  answer("ufw status verbose", "Status: active\nDefault: allow (incoming), allow (outgoing)\n");
  EXPECT_EQ(status().state, State::Open);
}

TEST_F(Firewall, WithoutRootUfwIsKnownByItsConfigurationAndItsRulesAreNot) {
  system_.administrator = false;
  has_ufw(true);
  answer("ufw status verbose", "ERROR: You need to be root to run this script\n", 1);
  EXPECT_EQ(status().state, State::Unknown);
  EXPECT_EQ(status().text,
            "ufw is active, and whether it lets clients in at UDP port 9876 can't be told without "
            "root's rights: sudo '/opt/lunder haze/lunderhaze' firewall --port 9876");
  installed_.clear();
  has_ufw(false);
  EXPECT_EQ(status().state, State::None);
}

// ---- firewalld

constexpr const char* ZONES =
    "block\n  target: %REJECT%\n  services: \n\n"
    "home\n  target: default\n  services: dhcpv6-client mdns ssh\n  ports: \n\n"
    "internal\n  target: default\n  services: ssh\n  ports: \n\n"
    "public\n  target: default\n  services: ssh\n  ports: \n\n"
    "trusted\n  target: ACCEPT\n  services: \n  ports: \n\n"
    "work\n  target: default\n  services: ssh\n  ports: \n";

TEST_F(Firewall, FirewalldGetsAServiceInTheZonesThatAreTrustedAndNeverInPublic) {
  has_firewalld(true);
  answer("firewall-cmd --permanent --list-all-zones", ZONES);
  answer("firewall-cmd --permanent --info-service=lunderhaze", "Error: INVALID_SERVICE\n", 101);
  EXPECT_TRUE(add()) << text_;
  EXPECT_THAT(commands_,
              ElementsAre("firewall-cmd --state", "firewall-cmd --permanent --list-all-zones",
                          "firewall-cmd --permanent --info-service=lunderhaze",
                          "firewall-cmd --permanent --new-service=lunderhaze",
                          "firewall-cmd --permanent --service=lunderhaze --add-port=9876/udp",
                          "firewall-cmd --permanent --zone=home --add-service=lunderhaze",
                          "firewall-cmd --permanent --zone=internal --add-service=lunderhaze",
                          "firewall-cmd --permanent --zone=work --add-service=lunderhaze",
                          "firewall-cmd --permanent --zone=trusted --add-service=lunderhaze",
                          "firewall-cmd --reload"));
  EXPECT_THAT(commands_, Each(Not(HasSubstr("public"))));
  EXPECT_EQ(text_,
            std::string("firewalld lets clients in at UDP port 9876 in the zones home, internal, "
                        "work, trusted; which zone a network is in, firewall-cmd "
                        "--get-active-zones tells") +
                BOUND_TO_THE_PORT);
}

constexpr const char* ZONES_WITH_THE_SERVICE =
    "home\n  target: default\n  services: lunderhaze ssh\n\n"
    "public\n  target: default\n  services: lunderhaze\n\n"
    "work\n  target: default\n  services: lunderhaze-not ssh\n";

TEST_F(Firewall, AFormerServiceGoesFirstFromEveryZoneThatNamesIt) {
  has_firewalld(true);
  answer("firewall-cmd --permanent --list-all-zones", ZONES_WITH_THE_SERVICE);
  EXPECT_TRUE(add()) << text_;
  ASSERT_GE(commands_.size(), 7U);
  EXPECT_EQ(commands_[3], "firewall-cmd --permanent --zone=home --remove-service=lunderhaze");
  EXPECT_EQ(commands_[4], "firewall-cmd --permanent --zone=public --remove-service=lunderhaze");
  EXPECT_EQ(commands_[5], "firewall-cmd --permanent --delete-service=lunderhaze");
  EXPECT_EQ(commands_[6], "firewall-cmd --permanent --new-service=lunderhaze");
}

TEST_F(Firewall, FirewalldsServiceIsRemovedAndWhatIsNotThereIsASuccess) {
  has_firewalld(true);
  answer("firewall-cmd --permanent --list-all-zones", ZONES_WITH_THE_SERVICE);
  EXPECT_TRUE(remove()) << text_;
  EXPECT_EQ(text_, "firewalld has no rule of this program's any more");
  EXPECT_EQ(commands_.back(), "firewall-cmd --reload");
  commands_.clear();
  answer("firewall-cmd --permanent --list-all-zones", ZONES);
  answer("firewall-cmd --permanent --info-service=lunderhaze", "Error: INVALID_SERVICE\n", 101);
  EXPECT_TRUE(remove()) << text_;
  EXPECT_THAT(commands_, Each(Not(HasSubstr("reload"))));
}

TEST_F(Firewall, WithoutAnyZoneThatIsTrustedTheRuleReachesNobody) {
  has_firewalld(true);
  answer("firewall-cmd --permanent --list-all-zones", "public\n  target: default\n");
  EXPECT_FALSE(add());
  EXPECT_EQ(text_, "firewalld has none of the zones home, internal, work and trusted");
}

TEST_F(Firewall, FirewalldIsOpenWhereAnActiveZoneHasServicePortOrLetsEverythingIn) {
  has_firewalld(true);
  const auto zones = [this](const std::string& text) {
    answer("firewall-cmd --list-all-zones", text);
    return status();
  };
  answer("firewall-cmd --info-service=lunderhaze", "lunderhaze\n  ports: 9876/udp\n  modules: \n");
  EXPECT_EQ(zones("home (active)\n  services: lunderhaze\n").state, State::Open);
  EXPECT_EQ(status().text,
            "firewalld is active and lets clients in at UDP port 9876 in the zone home");
  EXPECT_EQ(zones("public (default, active)\n  ports: 9876/udp\n").state, State::Open);
  EXPECT_EQ(zones("trusted (active)\n  target: ACCEPT\n").state, State::Open);

  EXPECT_EQ(zones("home\n  services: lunderhaze\n\npublic (active)\n  services: ssh\n").state,
            State::Closed);
  EXPECT_EQ(status().text,
            "firewalld is active and lets no clients in at UDP port 9876: the network here is in "
            "the zone public");
  EXPECT_EQ(zones("public (default)\n  ports: 9876/udp\n").state, State::Closed);
  EXPECT_EQ(zones("public (active)\n  ports: 9876/tcp 98760/udp\n").state, State::Closed);
  answer("firewall-cmd --info-service=lunderhaze", "lunderhaze\n  ports: 5000/udp\n");
  EXPECT_EQ(zones("home (active)\n  services: lunderhaze\n").state, State::Closed);
}

TEST_F(Firewall, WhatFirewalldDoesNotTellIsUnknown) {
  has_firewalld(true);
  answer("firewall-cmd --list-all-zones", "Error: not authorized\n", 253);
  EXPECT_EQ(status().state, State::Unknown);
  EXPECT_EQ(status().text, "firewall-cmd --list-all-zones: Error: not authorized");
}

}  // namespace
