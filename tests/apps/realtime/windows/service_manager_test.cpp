// The service and the real service control manager: registered, started, asked, stopped, removed,
// with a program that stands in for the service's.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <thread>

#include "apps/service/platform.h"
#include "apps/service/windows/event_log.h"
#include "apps/service/windows/managed_run.h"
#include "apps/service/windows/registration.h"
#include "apps/service/windows/service_control.h"
#include "connection/clock.h"
#include "control/windows/command_line.h"
#include "tests/support/temp_directory.h"
#include "tests/support/windows/beside_test.h"

namespace {

constexpr DWORD STOP_MS = 30'000;

class ManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    manager_.reset(
        OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE));
    if (!manager_) GTEST_SKIP() << "only administrators make services";
  }
  void TearDown() override { unregister_service({}, NAME, STOP_MS); }

  Registered install(const std::vector<std::string>& words) {
    std::vector<std::string> line = {beside_test("service_stand_in.exe").string()};
    line.insert(line.end(), words.begin(), words.end());
    return register_service({}, NAME, command_line_of(line));
  }
  Registered install_server(int exit_code = 0) {
    return install({"serve", std::to_string(exit_code), file_.string()});
  }
  ServiceHandle open() { return ServiceHandle(OpenServiceW(manager_.get(), NAME, ACCESS)); }
  static SERVICE_STATUS status_of(const ServiceHandle& service) {
    SERVICE_STATUS status{};
    EXPECT_TRUE(QueryServiceStatus(service.get(), &status));
    return status;
  }
  static bool reaches(const ServiceHandle& service, DWORD state) {
    const std::uint64_t deadline_us = lund_now_us() + 30'000'000;
    while (status_of(service).dwCurrentState != state) {
      if (lund_now_us() > deadline_us) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
  }
  void start(const ServiceHandle& service) {
    ASSERT_TRUE(StartServiceW(service.get(), 0, nullptr)) << GetLastError();
    ASSERT_TRUE(reaches(service, SERVICE_RUNNING));
  }
  static void stop(const ServiceHandle& service) {
    SERVICE_STATUS status{};
    ASSERT_TRUE(ControlService(service.get(), SERVICE_CONTROL_STOP, &status)) << GetLastError();
    ASSERT_TRUE(reaches(service, SERVICE_STOPPED));
  }
  // What the stand-in wrote down so far.
  std::string happened() const {
    std::string text = file_content(file_);
    std::erase(text, '\r');
    return text;
  }

  static constexpr wchar_t NAME[] = L"LunderhazeTest";
  static constexpr DWORD ACCESS = SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS |
                                  SERVICE_QUERY_CONFIG | SERVICE_INTERROGATE;
  TempDirectory directory_;
  const std::filesystem::path file_ = directory_ / "what happened";
  ServiceHandle manager_;
};

TEST_F(ManagerTest, InstallsStartsStopsAndUninstalls) {
  const Registered made = install_server();
  EXPECT_TRUE(made.done) << made.text;
  EXPECT_EQ(made.text, "The service \"LunderhazeTest\" is installed");
  {
    const ServiceHandle service = open();
    ASSERT_TRUE(service);
    EXPECT_EQ(status_of(service).dwCurrentState, DWORD{SERVICE_STOPPED});
    start(service);
    EXPECT_EQ(status_of(service).dwControlsAccepted & SERVICE_ACCEPT_STOP,
              DWORD{SERVICE_ACCEPT_STOP});
    stop(service);
    EXPECT_EQ(status_of(service).dwWin32ExitCode, DWORD{NO_ERROR});
    EXPECT_EQ(happened(), "ready\nstop\n");
  }
  const Registered removed = unregister_service({}, NAME, STOP_MS);
  EXPECT_TRUE(removed.done) << removed.text;
  EXPECT_EQ(removed.text, "The service \"LunderhazeTest\" is removed");
  EXPECT_FALSE(open());
  EXPECT_EQ(unregister_service({}, NAME, STOP_MS).text,
            "The service \"LunderhazeTest\" was not installed");
}

TEST_F(ManagerTest, IsStartedWithWindowsAsTheSystemInAProcessOfItsOwn) {
  ASSERT_TRUE(install_server().done);
  const ServiceHandle service = open();
  alignas(QUERY_SERVICE_CONFIGW) std::array<BYTE, 8'192> bytes;
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(bytes.data());
  DWORD needed = 0;
  ASSERT_TRUE(QueryServiceConfigW(service.get(), config, bytes.size(), &needed));
  EXPECT_EQ(config->dwServiceType, DWORD{SERVICE_WIN32_OWN_PROCESS});
  EXPECT_EQ(config->dwStartType, DWORD{SERVICE_AUTO_START});
  EXPECT_STREQ(config->lpServiceStartName, L"LocalSystem");
  EXPECT_EQ(config->lpBinaryPathName, command_line_of({beside_test("service_stand_in.exe").string(),
                                                       "serve", "0", file_.string()}));
  ASSERT_TRUE(QueryServiceConfig2W(service.get(), SERVICE_CONFIG_DESCRIPTION, bytes.data(),
                                   bytes.size(), &needed));
  EXPECT_NE(std::wstring(reinterpret_cast<SERVICE_DESCRIPTIONW*>(bytes.data())->lpDescription)
                .find(L"paired clients"),
            std::wstring::npos);
  ASSERT_TRUE(QueryServiceConfig2W(service.get(), SERVICE_CONFIG_PRESHUTDOWN_INFO, bytes.data(),
                                   bytes.size(), &needed));
  EXPECT_EQ(reinterpret_cast<SERVICE_PRESHUTDOWN_INFO*>(bytes.data())->dwPreshutdownTimeout,
            ServiceControl::STOP_HINT_MS);
}

TEST_F(ManagerTest, InstallingAgainChangesTheOneThatIsThere) {
  ASSERT_TRUE(install({"serve", "0", "elsewhere"}).done);
  const Registered again = install_server();
  EXPECT_TRUE(again.done);
  EXPECT_EQ(again.text, "The service \"LunderhazeTest\" was there and is changed");
  const ServiceHandle service = open();
  start(service);
  stop(service);
  EXPECT_EQ(happened(), "ready\nstop\n");
}

TEST_F(ManagerTest, UninstallingStopsTheOneThatRuns) {
  ASSERT_TRUE(install_server().done);
  start(open());
  EXPECT_TRUE(unregister_service({}, NAME, STOP_MS).done);
  EXPECT_EQ(happened(), "ready\nstop\n");
  EXPECT_FALSE(open());
}

TEST_F(ManagerTest, TheManagerIsToldTheServicesOwnExitCode) {
  for (const int code : {1, 2, 3, 4}) {
    ASSERT_TRUE(install_server(code).done);
    const ServiceHandle service = open();
    start(service);
    stop(service);
    EXPECT_EQ(status_of(service).dwWin32ExitCode, DWORD{ERROR_SERVICE_SPECIFIC_ERROR});
    EXPECT_EQ(status_of(service).dwServiceSpecificExitCode, static_cast<DWORD>(code));
  }
}

TEST_F(ManagerTest, ARunThatThrowsEndsAsAFailure) {
  ASSERT_TRUE(install_server(-1).done);
  const ServiceHandle service = open();
  start(service);
  stop(service);
  EXPECT_EQ(status_of(service).dwServiceSpecificExitCode, 4u);
}

TEST_F(ManagerTest, IsStartedAgainAfterItWasStopped) {
  ASSERT_TRUE(install_server().done);
  const ServiceHandle service = open();
  for (int i = 0; i < 2; ++i) {
    start(service);
    SERVICE_STATUS status{};
    EXPECT_TRUE(ControlService(service.get(), SERVICE_CONTROL_INTERROGATE, &status));
    EXPECT_EQ(status.dwCurrentState, DWORD{SERVICE_RUNNING});
    stop(service);
  }
  EXPECT_EQ(happened(), "ready\nstop\nready\nstop\n");
}

TEST_F(ManagerTest, AProcessThatItDidNotStartIsNoService) {
  bool ran = false;
  EXPECT_EQ(run_under_manager(
                [&ran] {
                  ran = true;
                  return 5;
                },
                4),
            4);
  EXPECT_FALSE(ran);
  EXPECT_FALSE(service_control().managed());
}

TEST_F(ManagerTest, ItsEventsHaveASourceWithWordsUntilItIsUnregistered) {
  constexpr wchar_t KEY[] =
      L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Lunderhaze";
  ASSERT_EQ(register_event_source(), ERROR_SUCCESS);
  wchar_t file[MAX_PATH];
  DWORD size = sizeof file;
  ASSERT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, KEY, L"EventMessageFile",
                         RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, file, &size),
            ERROR_SUCCESS);
  EXPECT_STREQ(file, L"%SystemRoot%\\System32\\EventCreate.exe");
  EXPECT_EQ(unregister_event_source(), ERROR_SUCCESS);
  EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, KEY, nullptr, RRF_RT_ANY, nullptr, nullptr, nullptr),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(unregister_event_source(), ERROR_SUCCESS);
}

}  // namespace
