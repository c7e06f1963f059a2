#include "control/sysinfo.h"

#include <unistd.h>

#include <climits>
#include <ctime>
#include <system_error>

#include "control/sysinfo_platform.h"

std::filesystem::path exe_path() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error);
}

std::uint64_t process_cpu_us() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<std::uint64_t>(used.tv_sec) * 1'000'000 +
         static_cast<std::uint64_t>(used.tv_nsec) / 1'000;
}

namespace sysinfo_platform {

const char* const UNNAMED_COMPUTER = "Linux PC";
const char* const RELATIVE_DATA_DIRECTORY = "lunderhaze";

// Without the domain that some systems put into the host name.
std::string computer_name() {
  char name[HOST_NAME_MAX + 1] = {};
  if (gethostname(name, sizeof(name) - 1) != 0) return {};
  const std::string full = name;
  return full.substr(0, full.find('.'));
}

std::uint32_t process_id() {
  return static_cast<std::uint32_t>(getpid());
}

}  // namespace sysinfo_platform
