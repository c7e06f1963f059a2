#include "tests/support/windows/service_manager.h"

#include <chrono>
#include <thread>

#include "control/security.h"
#include "control/windows/handles.h"
#include "tests/support/windows/native_program.h"
#include "tests/support/windows/running_programs.h"
#include "tests/support/windows/system_token.h"

namespace {

constexpr wchar_t MANAGER[] = L"services.exe";
constexpr std::chrono::seconds PATIENCE{20};
constexpr std::chrono::milliseconds LOOK_EVERY{10};

bool answers() {
  return static_cast<bool>(ServiceHandle(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT)));
}

bool start_as_the_system() {
  const Handle token = make_system_token();
  std::wstring path(MAX_PATH, L'\0');
  path.resize(GetSystemDirectoryW(path.data(), MAX_PATH));
  path += L'\\';
  path += MANAGER;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION made{};
  if (!CreateProcessAsUserW(token.get(), path.c_str(), nullptr, nullptr, nullptr, FALSE, 0, nullptr,
                            nullptr, &startup, &made))
    return false;
  const Handle process(made.hProcess), thread(made.hThread);
  const auto until = std::chrono::steady_clock::now() + PATIENCE;
  while (!answers()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(LOOK_EVERY);
  }
  return true;
}

}  // namespace

bool manager_is_the_systems() {
  for (const std::uint32_t id : running_programs(MANAGER)) {
    if (host_service::system_process(host_service::Process::open(id), nullptr)) return true;
    if (!under_wine() || !make_system_token()) return false;
    const Handle manager(OpenProcess(PROCESS_TERMINATE | SYNCHRONIZE, FALSE, id));
    if (!manager || !TerminateProcess(manager.get(), 1)) return false;
    WaitForSingleObject(manager.get(), INFINITE);
  }
  return start_as_the_system();
}
