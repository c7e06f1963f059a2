#include "control/sysinfo.h"

#include "connection/windows/file_time.h"
#include "control/sysinfo_platform.h"
#include "control/windows/wide_text.h"

std::filesystem::path exe_path() {
  constexpr std::size_t LONGEST_PATH = 32'768;  // characters, of any path of the system's
  for (std::wstring path(MAX_PATH, L'\0'); path.size() <= LONGEST_PATH;
       path.resize(2 * path.size())) {
    const DWORD count = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (count < path.size()) return path.substr(0, count);  // otherwise it was cut
  }
  return {};
}

std::uint64_t process_cpu_us() {
  FILETIME created, ended, system, user;
  if (!GetProcessTimes(GetCurrentProcess(), &created, &ended, &system, &user)) return 0;
  return (ticks_of(system) + ticks_of(user)) / FILETIME_TICKS_PER_US;
}

namespace sysinfo_platform {

const char* const UNNAMED_COMPUTER = "Windows PC";
const char* const RELATIVE_DATA_DIRECTORY = "Lunderhaze";

std::string computer_name() {
  wchar_t name[256];  // a DNS label has 63 characters, the other name 15
  DWORD size = ARRAYSIZE(name);
  if (GetComputerNameExW(ComputerNamePhysicalDnsHostname, name, &size))
    return to_utf8({name, size});
  size = ARRAYSIZE(name);
  return GetComputerNameW(name, &size) ? to_utf8({name, size}) : std::string();
}

std::uint32_t process_id() {
  return GetCurrentProcessId();
}

}  // namespace sysinfo_platform
