// The service's program under the service control manager, with its worker and the administrator's
// program, as a person installs, starts, asks, stops and removes them. Under Wine the manager is
// replaced by one that is LocalSystem's, as Windows' own is.
#include <gmock/gmock.h>

#include <array>
#include <nlohmann/json.hpp>
#include <regex>

#include "control/ipc_transport.h"
#include "control/security.h"
#include "control/windows/wide_text.h"
#include "tests/support/windows/beside_test.h"
#include "tests/support/windows/heard_program.h"
#include "tests/support/windows/installed_programs.h"
#include "tests/support/windows/native_program.h"
#include "tests/support/windows/neighbour.h"
#include "tests/support/windows/running_programs.h"
#include "tests/support/windows/service_manager.h"

namespace {

using nlohmann::json;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

constexpr wchar_t SERVICE[] = L"Lunderhaze";
constexpr wchar_t WORKER_FILE[] = L"lunderhaze-worker.exe";
constexpr wchar_t SERVICE_KEY[] = L"SYSTEM\\CurrentControlSet\\Services\\Lunderhaze";
constexpr wchar_t EVENTS_KEY[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Lunderhaze";
constexpr seconds PATIENCE{60};

bool is_in_registry(const wchar_t* key) {
  RegistryKey opened;
  return RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, opened.receive()) == ERROR_SUCCESS;
}

template <class Condition>
bool comes_true(Condition condition) {
  const auto until = steady_clock::now() + PATIENCE;
  while (!condition()) {
    if (steady_clock::now() > until) return false;
    Sleep(20);
  }
  return true;
}

void holds(const ProgramEnd& end, int status, const std::string& text) {
  EXPECT_EQ(end.status, status) << end.output;
  EXPECT_THAT(end.output, HasSubstr(text));
}

// ---- What needs nobody's rights

TEST(ServiceProgram, AnOrdinaryUsersRunEndsWith2AndSaysHowItIsStarted) {
  holds(run_program(L"lunderhaze-service.exe run"), 2,
        "it must run as LocalSystem, as it rules who may see and use this computer's screens: "
        "\"lunderhaze-service install\", then \"net start Lunderhaze\"\n");
}

TEST(ServiceProgram, WrongArgumentsEndItWith1) {
  EXPECT_EQ(run_program(L"lunderhaze-service.exe").status, 1);
  EXPECT_EQ(run_program(L"lunderhaze-service.exe serve").status, 1);
  holds(run_program(L"lunderhaze-service.exe install --session 0"), 1,
        "--session must be the number of a session with a desktop, 1 or more\n");
}

TEST(ServiceProgram, ItTellsItsVersionAndItsExitStatuses) {
  const ProgramEnd version = run_program(L"lunderhaze-service.exe --version");
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.output, testing::StartsWith("Lunderhaze "));
  holds(run_program(L"lunderhaze-service.exe --help"), 0, "Exit status: 0 stopped or done");
}

TEST(ServiceProgram, ProgramsThatOthersCanChangeAreNotInstalled) {
  holds(run_program(L"lunderhaze-service.exe install"), 2,
        ": others than administrators can change it or what lies beside it; put the programs into "
        "a directory such as C:\\Program Files\\Lunderhaze\n");
  EXPECT_FALSE(is_in_registry(SERVICE_KEY));
  EXPECT_FALSE(is_in_registry(EVENTS_KEY));
}

// ---- Installed

class ServiceOfTheSystem : public testing::Test {
 protected:
  void SetUp() override {
    if (!InstalledPrograms::possible()) GTEST_SKIP() << "this computer's services are its own";
    if (!manager_is_the_systems()) GTEST_SKIP() << Neighbour::NO_SYSTEM;
    manager_.reset(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    installed_.emplace();
  }
  void TearDown() override {
    if (!installed_) return;
    if (HasFailure()) ADD_FAILURE() << "the worker's log:\n" << log();
    EXPECT_EQ(uninstall().status, 0);
  }

  // ---- What an administrator does

  ProgramEnd service(const std::wstring& words) const {
    return run_program((*installed_ / "lunderhaze-service.exe").native() + L" " + words,
                       As::Administrator);
  }
  ProgramEnd install() const { return service(L"install"); }
  ProgramEnd uninstall() const { return service(L"uninstall"); }
  static ProgramEnd ctl(const std::wstring& words, const std::string& input = "",
                        As as = As::Administrator) {
    return run_program(L"lunderhaze-ctl.exe " + words, as, input);
  }
  // Of a command that is done.
  static json told(const std::wstring& words) {
    const ProgramEnd end = ctl(words + L" --json");
    EXPECT_EQ(end.status, 0) << end.output;
    return json::parse(end.output, nullptr, false);
  }
  static json status() { return told(L"status"); }
  static bool worker_runs() {
    const json shown = json::parse(ctl(L"status --json").output, nullptr, false);
    return shown.is_object() && shown.contains("worker") && shown["worker"].is_object();
  }

  // ---- The service manager

  ServiceHandle open(DWORD access) const {
    return ServiceHandle(OpenServiceW(manager_.get(), SERVICE, access));
  }
  SERVICE_STATUS_PROCESS state() const {
    SERVICE_STATUS_PROCESS state{};
    DWORD needed = 0;
    EXPECT_TRUE(QueryServiceStatusEx(open(SERVICE_QUERY_STATUS).get(), SC_STATUS_PROCESS_INFO,
                                     reinterpret_cast<BYTE*>(&state), sizeof state, &needed));
    return state;
  }
  bool reaches(DWORD wanted) const {
    return comes_true([&] { return state().dwCurrentState == wanted; });
  }
  void start_service() const {
    ASSERT_TRUE(StartServiceW(open(SERVICE_START).get(), 0, nullptr)) << GetLastError();
    ASSERT_TRUE(reaches(SERVICE_RUNNING));
  }
  void stop_service() const {
    SERVICE_STATUS ignored{};
    ASSERT_TRUE(ControlService(open(SERVICE_STOP).get(), SERVICE_CONTROL_STOP, &ignored));
  }
  // A service whose worker answers.
  void install_and_start() const {
    ASSERT_EQ(install().status, 0);
    start_service();
    ASSERT_TRUE(comes_true(worker_runs));
  }
  static std::uint32_t worker() { return status()["service"]["worker_pid"]; }
  static Handle opened(std::uint32_t process) {
    return Handle(OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE,
                              FALSE, process));
  }
  static bool ended_with_0(const Handle& process) {
    DWORD code = STILL_ACTIVE;
    return WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0 &&
           GetExitCodeProcess(process.get(), &code) && code == 0;
  }

  std::string log() const { return file_content(installed_->stored("host.log")); }

  std::optional<InstalledPrograms> installed_;
  ServiceHandle manager_;
};

TEST_F(ServiceOfTheSystem, InstallMakesItTheSystemsStartedWithWindowsAndSaysWhatIsNext) {
  holds(
      install(), 0,
      "The service \"Lunderhaze\" is installed, and starts with Windows; \"net start Lunderhaze\" "
      "starts it now\n");
  alignas(QUERY_SERVICE_CONFIGW) std::array<BYTE, 8'192> bytes;
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(bytes.data());
  DWORD needed = 0;
  ASSERT_TRUE(QueryServiceConfigW(open(SERVICE_QUERY_CONFIG).get(), config, bytes.size(), &needed));
  EXPECT_EQ(config->dwServiceType, DWORD{SERVICE_WIN32_OWN_PROCESS});
  EXPECT_EQ(config->dwStartType, DWORD{SERVICE_AUTO_START});
  EXPECT_STREQ(config->lpServiceStartName, L"LocalSystem");
  EXPECT_EQ(config->lpBinaryPathName,
            L"\"" + (*installed_ / "lunderhaze-service.exe").native() + L"\" \"service\"");
  EXPECT_TRUE(is_in_registry(EVENTS_KEY));
  EXPECT_EQ(state().dwCurrentState, DWORD{SERVICE_STOPPED});
  // Nothing runs or is stored before it is started.
  EXPECT_FALSE(fs::exists(installed_->stored("").parent_path()));
}

TEST_F(ServiceOfTheSystem, InstallingAgainChangesWhatIsThere) {
  ASSERT_EQ(install().status, 0);
  holds(service(L"install --session 1"), 0, "The service \"Lunderhaze\" was there and is changed");
  alignas(QUERY_SERVICE_CONFIGW) std::array<BYTE, 8'192> bytes;
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(bytes.data());
  DWORD needed = 0;
  ASSERT_TRUE(QueryServiceConfigW(open(SERVICE_QUERY_CONFIG).get(), config, bytes.size(), &needed));
  EXPECT_THAT(to_utf8(config->lpBinaryPathName),
              testing::EndsWith("\" \"service\" \"--session\" \"1\""));
}

TEST_F(ServiceOfTheSystem, AMissingWorkerIsNamedAndNothingIsInstalled) {
  const fs::path missing = *installed_ / "missing.exe";
  holds(service(L"install --worker " + missing.native()), 4,
        "lunderhaze-service: " + missing.string() + " is missing\n");
  EXPECT_FALSE(is_in_registry(SERVICE_KEY));
  EXPECT_FALSE(is_in_registry(EVENTS_KEY));
}

TEST_F(ServiceOfTheSystem, ALibraryBesideThemThatOthersCanChangeKeepsThemFromBeingInstalled) {
  write_file(*installed_ / "others-library.DLL", "");
  holds(install(), 2, "lunderhaze-service.exe: others than administrators can change it or what ");
  EXPECT_FALSE(is_in_registry(SERVICE_KEY));
}

TEST_F(ServiceOfTheSystem, StartedByTheManagerItServesTheConsolesSession) {
  install_and_start();
  const json shown = status();
  EXPECT_EQ(shown["service"]["session"], WTSGetActiveConsoleSessionId()) << shown;
  EXPECT_EQ(shown["service"]["starts"], 1);
  EXPECT_EQ(shown["worker"]["connected"], false);
  EXPECT_EQ(shown["worker"]["settings"], shown["stored"]);
  const auto worker = host_service::Process::open(shown["service"]["worker_pid"]);
  std::uint32_t session = 0;
  EXPECT_TRUE(host_service::system_process(worker, &session));
  EXPECT_EQ(session, WTSGetActiveConsoleSessionId());
  EXPECT_TRUE(
      host_service::system_process(host_service::Process::open(state().dwProcessId), nullptr));
  EXPECT_THAT(log(), HasSubstr("started (pid " + std::to_string(worker.id())));
}

TEST_F(ServiceOfTheSystem, TheManagersStopEndsTheWorkerFirstAndThenTheService) {
  install_and_start();
  const Handle worker_process = opened(worker());
  const Handle service_process = opened(state().dwProcessId);
  ASSERT_TRUE(worker_process && service_process);
  stop_service();
  ASSERT_TRUE(reaches(SERVICE_STOPPED));
  EXPECT_TRUE(ended_with_0(worker_process));
  EXPECT_EQ(state().dwWin32ExitCode, DWORD{NO_ERROR});
  EXPECT_EQ(WaitForSingleObject(service_process.get(), 10'000), WAIT_OBJECT_0);
  EXPECT_TRUE(running_programs(WORKER_FILE).empty());
  holds(ctl(L"status"), 4, "start it with \"net start Lunderhaze\"");
  // And again.
  start_service();
  EXPECT_TRUE(comes_true(worker_runs));
}

TEST_F(ServiceOfTheSystem, CtlsStopEndsBothInOrder) {
  install_and_start();
  const Handle worker_process = opened(worker());
  holds(ctl(L"stop"), 0, "The worker and the service stop\n");
  ASSERT_TRUE(reaches(SERVICE_STOPPED));
  EXPECT_TRUE(ended_with_0(worker_process));
  EXPECT_EQ(state().dwWin32ExitCode, DWORD{NO_ERROR});
}

TEST_F(ServiceOfTheSystem, UninstallWhileItRunsStopsItAndLeavesNothingButTheStore) {
  install_and_start();
  const Handle worker_process = opened(worker());
  holds(uninstall(), 0, "The service \"Lunderhaze\" is removed\n");
  EXPECT_TRUE(ended_with_0(worker_process));
  EXPECT_FALSE(open(SERVICE_QUERY_STATUS));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
  EXPECT_FALSE(is_in_registry(SERVICE_KEY));
  EXPECT_FALSE(is_in_registry(EVENTS_KEY));
  EXPECT_TRUE(running_programs(WORKER_FILE).empty());
  EXPECT_TRUE(running_programs(L"lunderhaze-service.exe").empty());
  EXPECT_TRUE(fs::exists(installed_->stored("identity")));
  holds(uninstall(), 0, "The service \"Lunderhaze\" was not installed\n");
}

TEST_F(ServiceOfTheSystem, AKilledWorkerIsReplaced) {
  install_and_start();
  const std::uint32_t former = worker();
  ASSERT_TRUE(TerminateProcess(opened(former).get(), 9));
  ASSERT_TRUE(comes_true([&] { return worker_runs() && worker() != former; }));
  EXPECT_EQ(status()["service"]["starts"], 2);
}

TEST_F(ServiceOfTheSystem, AKilledServicesWorkerEndsByItselfWith0) {
  install_and_start();
  const Handle worker_process = opened(worker());
  ASSERT_TRUE(TerminateProcess(opened(state().dwProcessId).get(), 9));
  EXPECT_EQ(WaitForSingleObject(worker_process.get(), 15'000), WAIT_OBJECT_0);
  EXPECT_TRUE(ended_with_0(worker_process));
  ASSERT_TRUE(reaches(SERVICE_STOPPED));
}

// ---- The administrator's program

TEST_F(ServiceOfTheSystem, CtlOpensPairingStoresSettingsAndRestartsTheWorker) {
  install_and_start();
  const std::string pin = told(L"pair --seconds 60")["pin"];
  EXPECT_TRUE(std::regex_match(pin, std::regex("[0-9]{6}"))) << pin;
  EXPECT_EQ(status()["worker"]["pairing"]["open"], true);
  holds(ctl(L"close-pairing"), 0, "Pairing is closed\n");
  holds(ctl(L"set fps=30 audio=off"), 0, "Stored: the next start of the worker applies it\n");
  EXPECT_EQ(told(L"get fps")["running"]["fps"], 60);
  const std::uint32_t former = worker();
  holds(ctl(L"restart"), 0, "The worker restarts\n");
  ASSERT_TRUE(comes_true([&] { return worker_runs() && worker() != former; }));
  EXPECT_EQ(told(L"get fps")["running"]["fps"], 30);
  holds(ctl(L"devices"), 0, "No paired devices\n");
  holds(ctl(L"remove-device 0000-0000"), 7, "no paired device answers to \"0000-0000\"");
  holds(ctl(L"set port=0"), 2, "port must be 1 to 65535");
  holds(ctl(L"get nothing"), 2, "");
  holds(ctl(L"no-such-command"), 1, "");
}

TEST_F(ServiceOfTheSystem, WhoIsNoAdministratorIsTurnedAway) {
  install_and_start();
  holds(ctl(L"status", "", As::Self), 3,
        "only an administrator may rule the service: run it in a terminal that was started as "
        "administrator\n");
  // Nor with a program that doesn't look itself: it gets nothing, and the next one is served.
  Neighbour ordinary;
  ASSERT_EQ(ordinary.tell(std::string("open ") + host_service::SERVICE_PIPE), "yes");
  EXPECT_EQ(ordinary.tell("read 1"), "0");
  EXPECT_EQ(status()["service"]["starts"], 1);
}

TEST_F(ServiceOfTheSystem, AStoreThatFailsWhileItRunsIsToldAndItsWorkersEndIsKnown) {
  install_and_start();
  const fs::path in_the_way = installed_->stored("pairing_password");
  fs::create_directory(in_the_way);  // no file can take its place
  holds(ctl(L"set-password --stdin", "a password\n"), 5, "machine persistence failure");
  fs::remove(in_the_way);
  EXPECT_TRUE(comes_true([&] { return worker_runs() && status()["service"]["starts"] == 2; }));
  EXPECT_THAT(ctl(L"status").output, HasSubstr("last exit: exit code 6: "));
}

// ---- Secrets

TEST_F(ServiceOfTheSystem, SecretsAreInNoLogOnNoCommandLineAndInNoEnvironment) {
  constexpr char PASSWORD[] = "wKx7-Rv2q-pZ9t-Lm4c-Hs8b-Ny3f-Jd6g-Tq5e";
  constexpr char RELAY_KEY[] = "Qd8mWz3kXc5nVb7jRf2sPg9tHy4wKl6dTu1eBq0a";
  install_and_start();
  const std::string pin = told(L"pair --seconds 300")["pin"];
  holds(ctl(L"set-password --stdin", std::string(PASSWORD) + "\n"), 0,
        "The pairing password is set\n");
  holds(ctl(L"set-relays - --restart",
            std::string("lunderhaze-relay://relay.invalid#") + RELAY_KEY + "\n"),
        0, "Stored\nThe worker restarts\n");
  ASSERT_TRUE(comes_true([&] { return worker_runs() && status()["service"]["starts"] == 2; }));
  EXPECT_EQ(status()["worker"]["pairing"]["password"], true);

  std::map<std::string, std::string> texts = {{"host.log", log()}};
  for (const std::uint32_t process : {worker(), std::uint32_t{state().dwProcessId}}) {
    const ProcessTexts known = texts_of(process);
    EXPECT_THAT(known.command_line, HasSubstr("lunderhaze-"));
    EXPECT_THAT(known.environment, HasSubstr("SystemRoot="));
    texts["command line of " + std::to_string(process)] = known.command_line;
    texts["environment of " + std::to_string(process)] = known.environment;
  }
  // The store's files: what is secret is sealed in them.
  for (const auto& entry : fs::directory_iterator(installed_->stored("")))
    texts[entry.path().filename().string()] = file_content(entry.path());
  EXPECT_THAT(texts["pairing_password"], Not(testing::IsEmpty()));
  EXPECT_THAT(texts["relays"], Not(testing::IsEmpty()));
  const std::regex pin_alone("(^|[^0-9])" + pin + "([^0-9]|$)");
  for (const auto& [where, text] : texts) {
    EXPECT_THAT(text, Not(HasSubstr(PASSWORD))) << where;
    EXPECT_THAT(text, Not(HasSubstr(RELAY_KEY))) << where;
    EXPECT_FALSE(std::regex_search(text, pin_alone)) << where;
  }
}

}  // namespace
