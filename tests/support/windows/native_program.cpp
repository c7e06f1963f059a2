#include "tests/support/windows/native_program.h"

#include <chrono>
#include <thread>

#include "control/windows/handles.h"
#include "control/windows/wide_text.h"

namespace {

using namespace std::chrono_literals;

constexpr auto DEADLINE = 60s;
constexpr auto LOOK_EVERY = 5ms;  // Wine gives no handle of such a program

FARPROC wine_function(const wchar_t* library, const char* name) {
  return GetProcAddress(GetModuleHandleW(library), name);
}

// As the system below names it.
std::string native_path(const std::filesystem::path& path) {
  using UnixName = char*(CDECL*)(const wchar_t*);
  const auto name_of = reinterpret_cast<UnixName>(
      reinterpret_cast<void*>(wine_function(L"kernel32", "wine_get_unix_file_name")));
  char* name = name_of != nullptr ? name_of(path.c_str()) : nullptr;
  const std::string out = name != nullptr ? name : "";
  if (name != nullptr) HeapFree(GetProcessHeap(), 0, name);
  return out;
}

bool start_shell(const std::string& script) {
  std::wstring command = L"/bin/sh \"" + to_wide(script) + L"\"";
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  return CreateProcessW(L"\\\\?\\unix\\bin\\sh", command.data(), nullptr, nullptr, FALSE, 0,
                        nullptr, nullptr, &startup, &process) != FALSE;
}

}  // namespace

bool under_wine() {
  return wine_function(L"ntdll", "wine_get_version") != nullptr;
}

std::optional<NativeShell::Result> NativeShell::run(const std::string& commands) {
  const std::filesystem::path status = directory_ / "status";
  write_file(directory_ / "script", "cd \"$(dirname \"$0\")\"\n(\n" + commands +
                                        "\n) >output 2>&1\necho $? >ended; mv ended status\n");
  if (!start_shell(native_path(directory_ / "script"))) return std::nullopt;
  for (const auto until = std::chrono::steady_clock::now() + DEADLINE;
       !std::filesystem::exists(status);) {
    if (std::chrono::steady_clock::now() > until) return std::nullopt;
    std::this_thread::sleep_for(LOOK_EVERY);
  }
  Result result{std::stoi(file_content(status)), file_content(directory_ / "output")};
  std::filesystem::remove(status);
  return result;
}
