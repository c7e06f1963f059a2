// The package's life in a Debian system: installed, used, upgraded, removed, purged.
#include <gmock/gmock.h>

#include <regex>
#include <thread>

#include "tests/support/xvfb.h"
#include "tests/system/package/package_support.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;

constexpr char DEFAULTS[] = "/etc/default/lunderhaze-rendezvous";

class PackageInstallTest : public PackageTest {
 protected:
  std::vector<std::string> lines(const std::vector<std::string>& arguments) {
    return lines_of(run(arguments));
  }
  // What the package put there, of the folders that match.
  std::vector<std::string> installed(const std::string& folder) {
    const std::regex wanted(folder + "/[^/]+");
    std::vector<std::string> files;
    for (const std::string& file : lines({"dpkg", "-L", "lunderhaze"}))
      if (std::regex_match(file, wanted)) files.push_back(file);
    EXPECT_FALSE(files.empty()) << folder;
    return files;
  }
  std::string read(const std::string& path) { return file_content(debian().path(path)); }
  void write(const std::string& path, const std::string& content) {
    fs::create_directories(debian().path(path).parent_path());
    write_file(debian().path(path), content);
  }
  bool there(const std::string& path) { return fs::exists(debian().path(path)); }

  // Serves a screen by the service in the foreground, which is asked for its status and stopped.
  void serve_for_a_while() {
    const Xvfb screen(640, 480);
    ASSERT_TRUE(screen.running());
    ChildProcess service(
        debian().inside({"/usr/sbin/lunderhaze-service", "--display", screen.display()}));
    const auto until = std::chrono::steady_clock::now() + 30s;
    RunResult status;
    do {
      std::this_thread::sleep_for(50ms);
      status = debian().run({"/usr/sbin/lunderhaze-ctl", "status"});
    } while (status.status != 0 && std::chrono::steady_clock::now() < until);
    EXPECT_EQ(status.status, 0) << status.output;
    EXPECT_THAT(status.output, HasSubstr("worker PID ")) << service.output();
    EXPECT_EQ(debian().processes("lunderhaze-worker").size(), 1u);
    run({"/usr/sbin/lunderhaze-ctl", "stop"});
    EXPECT_EQ(service.wait(30s), 0) << service.output();
    EXPECT_TRUE(debian().processes("lunderhaze-worker").empty());
  }

  void put_program(const std::string& path, const std::string& script) {
    write(path, "#!/bin/sh\n" + script);
    fs::permissions(debian().path(path), fs::perms(0755));
  }
  // Puts a systemctl there that writes down what it is told and says that systemd runs.
  void pretend_systemd() {
    put_program("/usr/local/bin/systemctl", "echo \"$@\" >>/run/told\n");
    fs::create_directories(debian().path("/run/systemd/system"));
  }
  std::string told_systemd() {
    const std::string said = read("/run/told");
    fs::remove(debian().path("/run/told"));
    return said;
  }
};

TEST_F(PackageInstallTest, ProgramsStartWithNothingButWhatThePackageDependsOn) {
  install();
  for (const std::string& program : installed("/usr/s?bin"))
    EXPECT_TRUE(std::regex_match(run({program, "--version"}),
                                 std::regex("Lunderhaze \\d+\\.\\d+\\.\\d+ \\(.+\\)\n")))
        << program;
}

// Not only by way of what another package depends on.
TEST_F(PackageInstallTest, NamesThePackageOfEachLibraryThatAProgramNeeds) {
  install();
  const std::string depends = ", " + package_field("Depends");
  std::map<std::string, std::string> paths;
  const std::regex entry("\\s+(\\S+) \\(libc6,x86-64\\b.*\\) => (\\S+)");
  for (const std::string& line : lines({"/sbin/ldconfig", "-p"}))
    if (std::smatch match; std::regex_match(line, match, entry))
      paths.emplace(match[1], fs::path(match[2].str()).filename().string());
  std::set<std::string> needed;
  for (const std::string& program : installed("/usr/s?bin")) {
    const RunResult elf = run_program({"readelf", "-dW", debian().path(program).string()});
    const std::regex library("\\(NEEDED\\).*\\[(.*)\\]");
    for (std::sregex_iterator at(elf.output.begin(), elf.output.end(), library), end; at != end;
         ++at)
      needed.insert((*at)[1]);
  }
  EXPECT_GT(needed.size(), 5u);
  for (const std::string& library : needed) {
    const std::string owner = run({"sh", "-c", "dpkg -S */\"$0\" | head -1", library});
    const std::string package = owner.substr(0, owner.find(':'));
    EXPECT_THAT(depends, AnyOf(HasSubstr(", " + package + " "), HasSubstr(", " + package + ",")))
        << library;
  }
}

TEST_F(PackageInstallTest, ManPagesRenderWithoutAWarning) {
  install();
  for (const std::string& page : installed("/usr/share/man/man[1-8]")) {
    EXPECT_EQ(run({"sh", "-c",
                   "MANROFFSEQ= MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z \"$0\" >/dev/null",
                   page}),
              "")
        << page;
    const std::string text = run({"sh", "-c", "MANWIDTH=80 man -l \"$0\" | col -b", page});
    EXPECT_THAT(text, HasSubstr("NAME\n")) << page;
    EXPECT_THAT(text, HasSubstr(fs::path(page).stem().stem().string())) << page;
  }
}

TEST_F(PackageInstallTest, UnitsAreSoundAndNoneIsEnabled) {
  install();
  for (const std::string& unit : installed("/usr/lib/systemd/system")) {
    EXPECT_EQ(run({"systemd-analyze", "verify", unit}), "") << unit;
    const RunResult enabled = debian().run({"systemctl", "is-enabled", fs::path(unit).filename()});
    EXPECT_EQ(enabled.output, "disabled\n") << unit;
    // Out of 100: what an intruder in the service could do, by what the unit leaves open.
    const RunResult exposure =
        debian().run({"systemd-analyze", "security", "--no-pager", "--offline=true",
                      "--threshold=30", fs::path(unit).filename()});
    EXPECT_EQ(exposure.status, 0) << exposure.output;
  }
}

TEST_F(PackageInstallTest, TheRendezvousServerRunsByItsUnitsCommandLine) {
  install();
  write("/etc/lunderhaze/relay.key", "a-key-of-the-administrators\n");
  const std::string unit = read("/usr/lib/systemd/system/lunderhaze-rendezvous.service");
  std::smatch command;
  ASSERT_TRUE(std::regex_search(unit, command, std::regex("\nExecStart=(.*)")));
  // As systemd does it: the folder of credentials, and the words of the options' file.
  ChildProcess server(
      debian().inside(
          {"sh", "-c", ". " + std::string(DEFAULTS) + "; exec " + command[1].str() + " --port 0"}),
      {{"CREDENTIALS_DIRECTORY", "/etc/lunderhaze"}});
  EXPECT_TRUE(server.wait_for_output("Listening on UDP port ", 20s)) << server.output();
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(20s), 0);
  EXPECT_THAT(server.output(), Not(HasSubstr("a-key-of-the-administrators")));
}

TEST_F(PackageInstallTest, TheServiceRunsInTheForegroundAndAnswersItsAdministrator) {
  install();
  serve_for_a_while();
}

TEST_F(PackageInstallTest, WhatAnAdministratorEditedSurvivesAReinstallAndARemoval) {
  install();
  const std::string edited = read(DEFAULTS) + "LUNDERHAZE_RENDEZVOUS_OPTIONS=--max-hosts=7\n";
  write(DEFAULTS, edited);
  write("/var/lib/lunderhaze/host/identity", "secret");
  install();
  EXPECT_EQ(read(DEFAULTS), edited);
  run({"dpkg", "-r", "lunderhaze"});
  EXPECT_FALSE(there("/usr/bin/lunderhaze"));
  EXPECT_EQ(read(DEFAULTS), edited);
  EXPECT_EQ(read("/var/lib/lunderhaze/host/identity"), "secret");
}

TEST_F(PackageInstallTest, NothingIsSaidToSystemdWhereItDoesNotRun) {
  pretend_systemd();
  fs::remove_all(debian().path("/run/systemd"));
  install();
  install();
  run({"dpkg", "-P", "lunderhaze"});
  EXPECT_EQ(told_systemd(), "");
}

TEST_F(PackageInstallTest, OnlyWhatTheAdministratorStartedRunsOnAfterAnUpgrade) {
  pretend_systemd();
  EXPECT_THAT(install(), HasSubstr("no service has been started"));
  EXPECT_EQ(told_systemd(), "--system daemon-reload\n");
  EXPECT_THAT(install(), Not(HasSubstr("no service has been started")));
  EXPECT_EQ(told_systemd(),
            "--system daemon-reload\n"
            "try-restart lunderhaze.service lunderhaze-rendezvous.service\n");
  run({"dpkg", "-r", "lunderhaze"});
  EXPECT_EQ(told_systemd(),
            "stop lunderhaze.service lunderhaze-rendezvous.service\n"
            "--system daemon-reload\n");
}

TEST_F(PackageInstallTest, ItsFirewallRuleGoesWithIt) {
  install();
  // What ufw says of rules that were added, and what it is asked to change.
  put_program("/usr/sbin/ufw", R"(case "$*" in
  status) echo "Status: active" ;;
  "show added") echo "ufw allow from 10.0.0.0/8 to any port 9876 proto udp comment 'Lunderhaze'" ;;
  *) echo "$*" >>/run/asked ;;
esac
)");
  install();
  EXPECT_FALSE(there("/run/asked")) << read("/run/asked");
  run({"dpkg", "-r", "lunderhaze"});
  EXPECT_THAT(read("/run/asked"), HasSubstr("delete allow from 10.0.0.0/8 to any port 9876"));
}

TEST_F(PackageInstallTest, PurgeLeavesNothingBehind) {
  const auto before = listing();
  ASSERT_GT(before.size(), 1000u);
  install();
  // Used: enabled, configured, run, and with what a killed service leaves.
  run({"systemctl", "enable", "lunderhaze", "lunderhaze-rendezvous"});
  EXPECT_TRUE(there("/etc/systemd/system/multi-user.target.wants"));
  write("/etc/lunderhaze/relay.key", "key\n");
  write(DEFAULTS, "LUNDERHAZE_RENDEZVOUS_OPTIONS=--max-hosts=7\n");
  serve_for_a_while();
  EXPECT_TRUE(there("/var/lib/lunderhaze/host/host.log"));
  write("/run/lunderhaze/worker.lock", "");
  EXPECT_GT(listing().size(), before.size() + 20);
  run({"dpkg", "-P", "lunderhaze"});
  const auto after = listing();
  for (const auto& [path, what] : after) {
    const auto was = before.find(path);
    EXPECT_EQ(was == before.end() ? "not there" : was->second, what) << path;
  }
  for (const auto& [path, what] : before) EXPECT_TRUE(after.contains(path)) << path << " is gone";
}

}  // namespace
