// The host started by hand, its sub-commands, and the rendezvous server, as whole programs on this
// user's desktop.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "control/windows/known_folder.h"
#include "control/windows/wide_text.h"
#include "tests/support/free_port.h"
#include "tests/support/windows/beside_test.h"
#include "tests/support/windows/heard_program.h"
#include "tests/support/windows/native_program.h"
#include "tests/support/windows/running_programs.h"

namespace {

using nlohmann::json;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

constexpr int WRONG_USAGE = 1, CANNOT_START = 4, NOT_RUNNING = 5, UNREACHABLE = 6,
              SYSTEM_REFUSED = 8, PROBLEM_FOUND = 9;
constexpr wchar_t RUN_KEY[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";

void holds(const ProgramEnd& end, int status, const std::string& text) {
  EXPECT_EQ(end.status, status) << end.output;
  EXPECT_THAT(end.output, HasSubstr(text));
}

class HostProgram : public testing::Test {
 protected:
  // This user's store and log are the tests' own.
  void SetUp() override {
    if (!under_wine()) GTEST_SKIP() << "this user's host is his own";
    clear();
  }
  void TearDown() override { clear(); }
  static void clear() {
    std::error_code ignored;
    fs::remove_all(store(), ignored);
    fs::remove_all(log().parent_path(), ignored);
  }
  static fs::path store() { return own_directory(FOLDERID_RoamingAppData); }
  static fs::path log() { return own_directory(FOLDERID_LocalAppData) / "host.log"; }

  static ProgramEnd host(const std::wstring& words, const std::string& input = "") {
    return run_program(L"lunderhaze.exe " + words, As::Self, input);
  }
  // One that listens.
  std::unique_ptr<HeardProgram> start_host() const {
    auto started = std::make_unique<HeardProgram>(L"lunderhaze.exe --port " + to_wide(port_));
    EXPECT_TRUE(started->says("Listening on UDP port ")) << started->output();
    return started;
  }
  static std::string behind(const std::string& text, const std::string& words, std::size_t size) {
    const std::size_t at = text.find(words);
    return at == text.npos ? "" : text.substr(at + words.size(), size);
  }
  static std::string key_code(const HeardProgram& host) {
    return behind(host.output(), "key code ", 9);
  }

  const std::string port_ = std::to_string(free_port());
};

// ---- Autostart

std::wstring run_value() {
  wchar_t text[1'024];
  DWORD size = sizeof text;
  const LSTATUS status =
      RegGetValueW(HKEY_CURRENT_USER, RUN_KEY, L"Lunderhaze", RRF_RT_REG_SZ, nullptr, text, &size);
  return status == ERROR_SUCCESS ? text : L"";
}

TEST_F(HostProgram, AutostartIsSwitchedAndTold) {
  constexpr char ON[] = "The host starts when this user logs in\n";
  constexpr char OFF[] = "The host does not start by itself when this user logs in\n";
  EXPECT_EQ(host(L"autostart").output, OFF);
  EXPECT_EQ(host(L"autostart on").output, ON);
  EXPECT_EQ(run_value(), L"\"" + beside_test("lunderhaze.exe").native() + L"\"");
  EXPECT_EQ(host(L"autostart").output, ON);
  EXPECT_EQ(host(L"autostart off").output, OFF);
  EXPECT_EQ(run_value(), L"");
  EXPECT_EQ(host(L"autostart off").status, 0);
  EXPECT_EQ(host(L"autostart perhaps").status, WRONG_USAGE);
}

// ---- The firewall

// Wine's netsh says yes to everything, and its firewall can't be asked.
TEST_F(HostProgram, AFirewallThatCannotBeAskedIsSaidSo) {
  holds(host(L"firewall"), SYSTEM_REFUSED, "Windows' firewall could not be asked (0x");
  holds(host(L"firewall on"), 0,
        "The rule \"Lunderhaze\" lets clients on private and domain networks in at this program, "
        "whatever its port\n");
  holds(host(L"firewall off"), 0, "The rule \"Lunderhaze\" was removed\n");
  EXPECT_EQ(host(L"firewall maybe").status, WRONG_USAGE);
  EXPECT_EQ(host(L"firewall on --port 70000").status, WRONG_USAGE);
}

// ---- The doctor

// The report, its exit status being what its findings are.
json doctor(const std::wstring& words = L"") {
  const ProgramEnd end = run_program(L"lunderhaze.exe doctor --json " + words);
  const std::size_t begin = end.output.find('{');  // Wine's own libraries speak before it
  const json report =
      begin == std::string::npos ? json() : json::parse(end.output.substr(begin), nullptr, false);
  EXPECT_TRUE(report.is_object()) << end.status << end.output;
  EXPECT_EQ(end.status, report.value("problems", -1) == 0 ? 0 : PROBLEM_FOUND) << end.output;
  return report;
}

json finding(const json& report, const std::string& check) {
  for (const json& each : report["checks"])
    if (each["check"] == check) return each;
  ADD_FAILURE() << "no line for " << check << ": " << report.dump(2);
  return {{"verdict", ""}, {"text", ""}};
}

TEST_F(HostProgram, TheDoctorSaysWhatIsThereAndWhatIsMissing) {
  const json report = doctor(L"--port " + to_wide(port_));
  EXPECT_EQ(report["port"], std::stoi(port_));
  for (const char* check : {"display", "capture", "graphics", "input", "clipboard", "encoder",
                            "port", "firewall", "relays", "sound", "store"})
    EXPECT_THAT(finding(report, check)["text"].get<std::string>(), Not(testing::IsEmpty()));
  EXPECT_EQ(finding(report, "port")["text"], "UDP port " + port_ + " is free");
  // Wine has no desktop duplication.
  EXPECT_EQ(finding(report, "graphics")["verdict"], "warning");
  EXPECT_THAT(finding(report, "graphics")["text"].get<std::string>(),
              HasSubstr("doesn't capture and encode"));
  EXPECT_EQ(finding(report, "firewall")["verdict"], "warning");
  EXPECT_THAT(finding(report, "firewall")["text"].get<std::string>(),
              HasSubstr("could not be asked"));
  EXPECT_EQ(finding(report, "store")["text"],
            "none yet: the first start makes " + to_utf8(store().native()));
  EXPECT_FALSE(fs::exists(store()));  // and leaves everything as it is
  EXPECT_EQ(host(L"doctor --fix").status, WRONG_USAGE);
  EXPECT_EQ(host(L"doctor --port 0").status, WRONG_USAGE);
}

TEST_F(HostProgram, TheDoctorKnowsARunningHostsPortAndStore) {
  const auto running = start_host();
  const json report = doctor();
  EXPECT_EQ(report["port"], std::stoi(port_));
  EXPECT_THAT(finding(report, "port")["text"].get<std::string>(),
              HasSubstr("is this user's running host's"));
  EXPECT_THAT(finding(report, "store")["text"].get<std::string>(),
              HasSubstr(" is whole: identity"));
}

TEST_F(HostProgram, TheDoctorFindsADamagedStore) {
  start_host();
  write_file(store() / "identity", "damaged");
  const json report = doctor(L"--port " + to_wide(port_));
  EXPECT_GE(report["problems"], 1);
  EXPECT_EQ(finding(report, "store")["verdict"], "problem");
  EXPECT_EQ(file_content(store() / "identity"), "damaged");
}

// ---- Its life

TEST_F(HostProgram, KilledAndStartedAgainItIsTheSame) {
  auto first = start_host();
  const std::string code = key_code(*first);
  ASSERT_EQ(code.size(), 9u) << first->output();
  const std::string sealed = file_content(store() / "identity");
  first->end();
  holds(host(L"status"), NOT_RUNNING, "The host is not running\nHost " + code + "\n");
  const auto second = start_host();
  EXPECT_EQ(key_code(*second), code);
  EXPECT_EQ(file_content(store() / "identity"), sealed);
  EXPECT_FALSE(fs::exists(store() / "identity.bad"));
  holds(host(L"status"), 0, "Host " + code + " on UDP port " + port_ + "\n");
}

TEST_F(HostProgram, ASecondOneCannotStartAndTheFirstGoesOn) {
  const auto first = start_host();
  const ProgramEnd second = host(L"--port " + std::to_wstring(free_port()));
  EXPECT_EQ(second.status, CANNOT_START) << second.output;
  holds(host(L"status"), 0, "on UDP port " + port_ + "\n");
}

TEST_F(HostProgram, APairingIsOpenedOnTheRunningOneAlone) {
  EXPECT_EQ(host(L"pair").status, NOT_RUNNING);
  const auto running = start_host();
  const ProgramEnd opened = host(L"pair 60");
  EXPECT_EQ(opened.status, 0) << opened.output;
  const std::string pin = behind(opened.output, "PIN ", 6);
  EXPECT_EQ(pin.find_first_not_of("0123456789"), pin.npos) << opened.output;
  holds(host(L"status"), 0, pin);
  EXPECT_EQ(host(L"pair never").status, WRONG_USAGE);
}

TEST_F(HostProgram, ADamagedIdentityIsKeptAsideAndSaid) {
  start_host();
  write_file(store() / "identity", "damaged");
  const auto next = start_host();
  EXPECT_EQ(file_content(store() / "identity.bad"), "damaged");
  EXPECT_THAT(file_content(log()), HasSubstr("kept as identity.bad): NEW identity"));
}

TEST_F(HostProgram, TheSwitchesAreKeptForTheNextStart) {
  holds(host(L"mute off"), 0, "");
  holds(host(L"clipboard off"), 0, "");
  const std::string mute = host(L"mute").output, clipboard = host(L"clipboard").output;
  const auto running = start_host();
  EXPECT_EQ(host(L"mute").output, mute);
  EXPECT_EQ(host(L"clipboard").output, clipboard);
  EXPECT_NE(host(L"clipboard on").output, clipboard);
}

TEST_F(HostProgram, WrongArgumentsEndItWith1) {
  EXPECT_EQ(host(L"--port 0").status, WRONG_USAGE);
  EXPECT_EQ(host(L"--no-such-option").status, WRONG_USAGE);
  holds(host(L"--version"), 0, "Lunderhaze ");
  EXPECT_FALSE(fs::exists(store()));
}

// ---- With a rendezvous server

class HostProgramAndServer : public HostProgram {
 protected:
  std::unique_ptr<HeardProgram> start_server() const {
    auto server = std::make_unique<HeardProgram>(
        L"lunderhaze-rendezvous.exe --bind 127.0.0.1 --port " + to_wide(server_port_) +
        L" --hide-link --key " + to_wide(KEY));
    EXPECT_TRUE(server->says("Ctrl+C stops.\n")) << server->output();
    return server;
  }

  static inline const std::string KEY = "Qd8mWz3kXc5nVb7jRf2sPg9tHy4wKl6dTu1eBq0a";
  const std::string server_port_ = std::to_string(free_port());
  const std::string server_name_ = "127.0.0.1:" + server_port_;
  const std::string link_ = "lunderhaze-relay://" + server_name_ + "#" + KEY + "\n";
};

TEST_F(HostProgramAndServer, ARelayServerIsCheckedAndRegisteredAt) {
  holds(host(L"relays add -", link_), 0, server_name_);
  holds(host(L"relays list"), 0, server_name_);
  EXPECT_EQ(host(L"relays check").status, UNREACHABLE);
  const auto server = start_server();
  holds(host(L"relays check"), 0, server_name_);
  const auto running = start_host();
  std::string report;
  const auto until = steady_clock::now() + HeardProgram::PATIENCE;
  do report = host(L"status").output;
  while (report.find(": Registered") == report.npos && steady_clock::now() < until);
  EXPECT_THAT(report, HasSubstr("Relay " + server_name_ + ": Registered"));
}

// ---- Secrets

TEST_F(HostProgramAndServer, SecretsAreInNoLogAndInNoEnvironmentAndSealedInTheStore) {
  holds(host(L"relays add -", link_), 0, server_name_);
  const auto server = start_server();
  const auto running = start_host();
  const std::string pin = behind(host(L"pair 300").output, "PIN ", 6);
  ASSERT_EQ(pin.size(), 6u);
  const ProcessTexts known = texts_of(running->program().id());
  EXPECT_THAT(known.command_line, HasSubstr("lunderhaze.exe"));
  EXPECT_THAT(known.environment, HasSubstr("SystemRoot="));
  const std::map<std::string, std::string> texts = {
      {"host.log", file_content(log())},
      {"command line", known.command_line},
      {"environment", known.environment},
      {"relays", file_content(store() / "relays")},
      {"identity", file_content(store() / "identity")},
      {"the host's output", running->output()},
      {"the server's output", server->output()},
  };
  EXPECT_FALSE(texts.at("host.log").empty());
  EXPECT_FALSE(texts.at("relays").empty());
  for (const auto& [where, text] : texts) EXPECT_THAT(text, Not(HasSubstr(KEY))) << where;
  for (const char* where : {"host.log", "command line", "environment", "identity"})
    EXPECT_THAT(texts.at(where), Not(testing::ContainsRegex(pin))) << where;
}

}  // namespace
