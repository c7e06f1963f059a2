#include "control/linux/user_directories.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace {

constexpr std::size_t PASSWD_BYTES = 16'384;
constexpr mode_t OWNER_ONLY = 0700;

std::filesystem::path absolute_variable(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && value[0] == '/' ? value : std::filesystem::path();
}

std::filesystem::path home_directory() {
  if (std::filesystem::path home = absolute_variable("HOME"); !home.empty()) return home;
  std::vector<char> buffer(PASSWD_BYTES);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr ||
      found->pw_dir == nullptr || found->pw_dir[0] != '/') {
    return {};
  }
  return found->pw_dir;
}

}  // namespace

std::filesystem::path user_directory(const char* variable, const char* fallback) {
  if (const std::filesystem::path base = absolute_variable(variable); !base.empty()) {
    return base / "lunderhaze";
  }
  const std::filesystem::path home = home_directory();
  return home.empty() ? home : home / fallback / "lunderhaze";
}

bool make_private_directories(const std::filesystem::path& directory) {
  std::filesystem::path part;
  for (const std::filesystem::path& name : directory) {
    part /= name;
    if (mkdir(part.c_str(), OWNER_ONLY) == 0) continue;
    struct stat status {};
    if (stat(part.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return false;
  }
  return !directory.empty();
}
