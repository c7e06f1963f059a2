// Stands in for the service's program, and for a worker's, by its first word:
//   exit CODE        ends with that code
//   fault            ends by an exception that it doesn't handle
//   wait             until it is killed
//   tell FILE        writes what it was started with into the file, a "name=value" a line
//   serve CODE FILE  a service as the SCM runs one: until it is stopped, then ends with that code;
//                    without the SCM 77. The file gets a line for each thing that becomes of it
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include "apps/service/platform.h"
#include "apps/service/windows/managed_run.h"
#include "apps/service/windows/service_control.h"
#include "control/windows/token.h"
#include "control/windows/wide_text.h"

namespace {

constexpr int UNMANAGED = 77;

std::wstring desktop_name() {
  wchar_t name[256] = L"";
  DWORD size = 0;
  GetUserObjectInformationW(GetThreadDesktop(GetCurrentThreadId()), UOI_NAME, name, sizeof name,
                            &size);
  return name;
}

int tell(const char* file) {
  std::ofstream out(file, std::ios::binary);
  wchar_t directory[MAX_PATH];
  GetCurrentDirectoryW(MAX_PATH, directory);
  DWORD session = 0;
  ProcessIdToSessionId(GetCurrentProcessId(), &session);
  out << "directory=" << to_utf8(directory) << "\ndesktop=" << to_utf8(desktop_name())
      << "\nsession=" << session << "\nconsole=" << (GetConsoleWindow() != nullptr)
      << "\ncommand=" << to_utf8(GetCommandLineW()) << "\n";
  wchar_t* const variables = GetEnvironmentStringsW();
  for (const wchar_t* at = variables; *at != L'\0'; at += std::wstring(at).size() + 1)
    out << to_utf8(at) << "\n";
  FreeEnvironmentStringsW(variables);
  return out.flush() ? 0 : 1;
}

int serve(int code, const char* file) {
  return run_under_manager(
      [&] {
        if (!service_control().managed()) return UNMANAGED;
        std::ofstream out(file, std::ios::binary | std::ios::app);
        static WakeEvent wake(WakeEvent::Reset::Auto);
        service_platform::watch_for_stop(wake);
        service_platform::tell_manager_ready();
        service_platform::tell_manager_line("a line for the log", service_platform::Line::News);
        out << "ready" << std::endl;
        while (!service_platform::stop_asked()) {
          wake.wait(INFINITE);
          out << (service_platform::stop_asked() ? "stop" : "wake") << std::endl;
        }
        service_platform::tell_manager_stopping();
        service_platform::tell_manager_status("stopping: the service ends");
        if (code < 0) throw std::runtime_error("thrown by a run");
        return code;
      },
      4);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  if (what == "exit" && argc > 2) return std::atoi(argv[2]);
  if (what == "fault") RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
  if (what == "wait") Sleep(INFINITE);
  if (what == "tell" && argc > 2) return tell(argv[2]);
  if (what == "serve" && argc > 3) return serve(std::atoi(argv[2]), argv[3]);
  std::fprintf(stderr, "service_stand_in: exit, fault, wait, tell or serve\n");
  return 99;
}
