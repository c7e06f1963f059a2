#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "control/linux/descriptor.h"
#include "control/linux/user_directories.h"
#include "control/store_platform.h"

namespace store_platform {

namespace {

bool write_all(int file, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(file, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool read_all(int file, char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t got = read(file, bytes, size);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    bytes += got;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

// A rename is on the disk once its directory is. Some file systems can't flush a directory: then
// there is nothing better to do.
void flush_directory(const std::filesystem::path& directory) {
  const Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (opened.get() >= 0) fsync(opened.get());
}

}  // namespace

const char* const NO_MACHINE_DIRECTORY = "state directory unavailable";

std::filesystem::path user_store_directory() {
  return user_directory("XDG_CONFIG_HOME", ".config");
}

std::filesystem::path machine_store_directory() {
  const std::filesystem::path state = "/var/lib";
  std::error_code ignored;
  if (!std::filesystem::is_directory(state, ignored)) return {};
  return state / "lunderhaze" / "host";
}

bool make_directory(const std::filesystem::path& directory) {
  return make_private_directories(directory);
}

bool list_directory(const std::filesystem::path& directory,
                    std::vector<std::filesystem::path>* entries) {
  entries->clear();
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error))
    entries->push_back(entry->path());
  return !error;
}

bool is_absent(const std::filesystem::path& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

// Non-blocking, since a pipe in the file's place would hold the caller up.
Read read_file(const std::filesystem::path& path, std::size_t limit_bytes, std::string* bytes) {
  bytes->clear();
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (file.get() < 0) return errno == ENOENT ? Read::Missing : Read::Failed;
  struct stat status {};
  if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return Read::Failed;
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size >= limit_bytes) return Read::Failed;
  bytes->resize(size);
  if (read_all(file.get(), bytes->data(), size)) return Read::Ok;
  bytes->clear();
  return Read::Failed;
}

bool create_file(const std::filesystem::path& path, const void* data, std::size_t size) {
  Descriptor file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (file.get() < 0) return false;
  // Closing too may report what could not be written.
  const bool written =
      write_all(file.get(), static_cast<const char*>(data), size) && fsync(file.get()) == 0;
  const bool closed = ::close(file.release()) == 0;
  if (!written || !closed) unlink(path.c_str());
  return written && closed;
}

bool replace_file(const std::filesystem::path& from, const std::filesystem::path& to) {
  if (rename(from.c_str(), to.c_str()) != 0) return false;
  flush_directory(to.parent_path());
  return true;
}

bool remove_file(const std::filesystem::path& path) {
  if (unlink(path.c_str()) != 0) return errno == ENOENT;
  flush_directory(path.parent_path());
  return true;
}

}  // namespace store_platform
