// `lunderhaze autostart` and `lunderhaze firewall` with the real program; the firewall's programs
// are small ones on a PATH of the test's own, which keep their rules in files.
#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/support/temp_directory.h"
#include "tests/system/system_support.h"

namespace system_test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr int EXIT_SYSTEM_REFUSED = 8;

class DeskCommandsTest : public SystemTest {
 protected:
  RunResult run(const std::vector<std::string>& arguments) const {
    return run_program(at(host_place_, "lunderhaze", arguments), environment_, seconds(30));
  }
  void expect_said(const std::vector<std::string>& arguments, int status,
                   const std::string& text) const {
    const RunResult result = run(arguments);
    EXPECT_EQ(result.status, status) << result.output;
    EXPECT_THAT(result.output, HasSubstr(text));
  }
};

// ---- Autostart

TEST_F(DeskCommandsTest, AutostartIsSwitchedAndTold) {
  const auto entry = directory_ / "config" / "autostart" / "lunderhaze.desktop";
  constexpr const char* ON = "The host starts when this user logs in\n";
  constexpr const char* OFF = "The host does not start by itself when this user logs in\n";
  EXPECT_EQ(run({"autostart"}).output, OFF);
  EXPECT_EQ(run({"autostart", "on"}).output, ON);
  EXPECT_THAT(file_content(entry), HasSubstr("\nExec=\"" + program("lunderhaze") + "\"\n"));
  EXPECT_EQ(run({"autostart"}).output, ON);
  EXPECT_EQ(run({"autostart", "off"}).output, OFF);
  EXPECT_FALSE(std::filesystem::exists(entry));
  EXPECT_EQ(run({"autostart", "off"}).status, 0);
  EXPECT_EQ(run({"autostart", "perhaps"}).status, 1);
}

TEST_F(DeskCommandsTest, AForeignAutostartEntryIsReplacedWithALine) {
  const auto entry = directory_ / "config" / "autostart" / "lunderhaze.desktop";
  std::filesystem::create_directories(entry.parent_path());
  write_file(entry, "[Desktop Entry]\nExec=/opt/other\n");
  expect_said({"autostart", "on"}, 0,
              entry.string() +
                  " was replaced: it was an entry that started /opt/other\nThe host "
                  "starts when this user logs in\n");
}

TEST_F(DeskCommandsTest, AnAutostartEntryThatCannotBeWrittenIsAFailure) {
  write_file(directory_ / "config", "in the way");
  expect_said({"autostart", "on"}, EXIT_SYSTEM_REFUSED, "could not write ");
}

// ---- The firewall

class FirewallCommandTest : public DeskCommandsTest {
 protected:
  void SetUp() override {
    DeskCommandsTest::SetUp();
    std::filesystem::create_directories(directory_ / "bin");
    environment_["PATH"] = (directory_ / "bin").string() + ":/usr/bin:/bin";
    environment_["RULES"] = rules_ = directory_ / "rules";
    write_file(rules_, "");
  }
  void add(const std::string& name, const std::string& script) const {
    write_file(directory_ / "bin" / name, "#!/bin/sh\n" + script);
    std::filesystem::permissions(directory_ / "bin" / name, std::filesystem::perms::owner_all);
  }

  // As ufw does, as far as it is asked: rules in the order of "ufw show added", one a line.
  void add_ufw() const {
    add("ufw", R"(
case "$*" in
  "status") echo "Status: active" ;;
  "status verbose")
    echo "Status: active"
    sed -n "s/^ufw allow from \([^ ]*\) to any port \([0-9]*\) proto udp.*/\2\/udp ALLOW IN \1/p" "$RULES" ;;
  "show added") echo "Added user rules (see 'ufw status' for running firewall):"; cat "$RULES" ;;
  "delete allow from "*)
    grep -v "^ufw allow from $4 to any port $8 proto udp" "$RULES" > "$RULES.new"
    mv "$RULES.new" "$RULES" ;;
  "allow proto udp from "*)
    echo "ufw allow from $5 to any port $9 proto udp comment '${11}'" >> "$RULES" ;;
  *) echo "ERROR: unknown: $*"; exit 1 ;;
esac
)");
  }

  std::filesystem::path rules_;
};

std::string ufw_rules(int port) {
  std::string text;
  for (const char* range : {"10.0.0.0/8", "172.16.0.0/12", "192.168.0.0/16"})
    text += std::string("ufw allow from ") + range + " to any port " + std::to_string(port) +
            " proto udp comment 'Lunderhaze'\n";
  return text;
}

TEST_F(FirewallCommandTest, UfwsRuleIsAddedOnceReplacedToldAndRemoved) {
  if (geteuid() != 0) GTEST_SKIP() << "firewalls are root's";
  add_ufw();
  write_file(rules_, "ufw allow 22/tcp\n");
  expect_said({"firewall"}, 0, "ufw is active and has no rule that lets UDP port 9876 in");
  expect_said({"firewall", "on"}, 0,
              "ufw lets 10.0.0.0/8, 172.16.0.0/12 and 192.168.0.0/16 in at UDP port 9876\nThe "
              "rule is bound to the port and not to this program");
  EXPECT_EQ(file_content(rules_), "ufw allow 22/tcp\n" + ufw_rules(9876));
  expect_said({"firewall", "on", "--port", "5000"}, 0, "UDP port 5000");
  EXPECT_EQ(file_content(rules_), "ufw allow 22/tcp\n" + ufw_rules(5000));
  expect_said({"firewall", "status", "--port", "5000"}, 0,
              "ufw is active and has a rule that lets UDP port 5000 in");
  expect_said({"firewall", "off"}, 0, "ufw has no rule of this program's any more");
  EXPECT_EQ(file_content(rules_), "ufw allow 22/tcp\n");
  expect_said({"firewall", "off"}, 0, "ufw has no rule of this program's any more");
}

TEST_F(FirewallCommandTest, AUserWithoutRootsRightsIsToldTheCommand) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  add("firewall-cmd", "echo \"$*\" >> \"$RULES\"\n");
  std::filesystem::permissions(directory_ / "bin" / "firewall-cmd", std::filesystem::perms(0755));
  for (const auto& path : {directory_, directory_ / "bin"})
    std::filesystem::permissions(path, std::filesystem::perms(0755));
  std::filesystem::permissions(rules_, std::filesystem::perms(0666));
  host_place_ = {"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"};
  if (run({"--version"}).status != 0) GTEST_SKIP() << "others may not run what was built here";
  expect_said(
      {"firewall", "on"}, EXIT_SYSTEM_REFUSED,
      "this needs root's rights: sudo " + program("lunderhaze") + " firewall on --port 9876");
  EXPECT_EQ(file_content(rules_), "--state\n");
}

TEST_F(FirewallCommandTest, WhatUfwRefusesIsSaid) {
  if (geteuid() != 0) GTEST_SKIP() << "firewalls are root's";
  add("ufw",
      "test \"$*\" = status && echo 'Status: active' && exit 0\n"
      "echo 'ERROR: could not get the lock'; exit 1\n");
  expect_said({"firewall", "on"}, EXIT_SYSTEM_REFUSED,
              "ufw show added: ERROR: could not get the lock");
  expect_said({"firewall"}, EXIT_SYSTEM_REFUSED,
              "ufw status verbose: ERROR: could not get the lock");
}

TEST_F(FirewallCommandTest, OneThatHangsIsGivenUpAfter15Seconds) {
  if (geteuid() != 0) GTEST_SKIP() << "firewalls are root's";
  add("ufw", "test \"$*\" = status && echo 'Status: active' && exit 0\nexec sleep 1000\n");
  expect_said({"firewall", "on"}, EXIT_SYSTEM_REFUSED, "ufw show added: came to no end in time");
}

TEST_F(FirewallCommandTest, WrongArgumentsAreRefused) {
  EXPECT_EQ(run({"firewall", "maybe"}).status, 1);
  EXPECT_EQ(run({"firewall", "on", "--port", "70000"}).status, 1);
  EXPECT_EQ(run({"firewall", "on", "--port"}).status, 1);
}

}  // namespace
}  // namespace system_test
