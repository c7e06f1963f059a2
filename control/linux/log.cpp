#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "connection/clock.h"
#include "control/linux/descriptor.h"
#include "control/linux/user_directories.h"
#include "control/log_platform.h"
#include "control/security.h"

namespace log_platform {

const char* const NAME = "Linux";

LocalTime local_time() {
  const std::uint64_t wall_us = lund_wall_us();
  const auto seconds = static_cast<time_t>(wall_us / 1'000'000);
  tm parts{};
  localtime_r(&seconds, &parts);
  return {static_cast<unsigned>(parts.tm_year + 1900),   static_cast<unsigned>(parts.tm_mon + 1),
          static_cast<unsigned>(parts.tm_mday),          static_cast<unsigned>(parts.tm_hour),
          static_cast<unsigned>(parts.tm_min),           static_cast<unsigned>(parts.tm_sec),
          static_cast<unsigned>(wall_us / 1'000 % 1'000)};
}

unsigned long process_id() {
  return static_cast<unsigned long>(getpid());
}

std::filesystem::path user_log_directory() {
  std::filesystem::path directory = user_directory("XDG_STATE_HOME", ".local/state");
  make_private_directories(directory);
  return directory;
}

// Non-blocking, since a pipe in the file's place would hold the caller up.
Opening open_append(keystore::HostStoreScope scope, const std::filesystem::path& path, File* file) {
  Descriptor opened(
      open(path.c_str(),
           O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK, 0600));
  struct stat status {};
  if (opened.get() < 0 || fstat(opened.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return Opening::Failed;
  }
  // A directory's default ACL, or a file system without owners, can open a new file to others.
  if (scope == keystore::Machine && !host_service::protected_path(path, true)) {
    return Opening::Unprotected;
  }
  *file = opened.release();
  return Opening::Done;
}

std::int64_t file_size(File file) {
  struct stat status {};
  return fstat(static_cast<int>(file), &status) == 0 ? status.st_size : 0;
}

std::size_t write(File file, const char* bytes, std::size_t size) {
  const ssize_t written = ::write(static_cast<int>(file), bytes, size);
  return written < 0 ? 0 : static_cast<std::size_t>(written);
}

void close(File file) {
  ::close(static_cast<int>(file));
}

void replace(const std::filesystem::path& from, const std::filesystem::path& to) {
  [[maybe_unused]] const int result = rename(from.c_str(), to.c_str());
}

}  // namespace log_platform
